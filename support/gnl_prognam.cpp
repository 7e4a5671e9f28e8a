#include "vornsupport/support.h"

char* gnl_prognam = nullptr;
