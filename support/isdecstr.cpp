#include "vornsupport/support.h"

int isdecstr(const char* text) {
  if (text == nullptr) return 0;
  if (*text == '+' || *text == '-') ++text;
  if (*text == '\0') return 0;
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return 0;
  }
  return 1;
}
