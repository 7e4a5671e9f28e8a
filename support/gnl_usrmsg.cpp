#include "vornsupport/support.h"

char gnl_usrmsg[GNL_USRMSG_SIZE] = "";
