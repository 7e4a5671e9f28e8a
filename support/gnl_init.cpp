#include "vornsupport/support.h"

#include <cstdio>

int gnl_init(gnl_init_ctrl* ctrl) {
  if (ctrl == nullptr) {
    std::snprintf(gnl_usrmsg, GNL_USRMSG_SIZE, "no initialisation record");
    return 1;
  }
  gnl_usrmsg[0] = '\0';
  return 0;
}
