// The limit: a program that only has the standard library.
#include "started.h"

int main() {
  started();
}
