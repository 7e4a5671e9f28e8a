// Option letters and words, separated by line ends: the first line is the declaration. Every option
// that is reported was declared, has its argument if and only if it takes one, and a failure leaves
// a text.
#include "vornsupport/support.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

int check_word(_gnl_cmdlin_ctrl* ctrl, int is_switch, int opt, const char* arg) {
  if (!is_switch) {
    if (opt < 1 || !arg) std::abort();
    return 0;
  }
  const char* const letter = strrchr(ctrl->opt_letters, opt);
  if (!letter || (letter[1] == ':') != (arg != nullptr)) std::abort();
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> lines(1);
  for (std::size_t i = 0; i < size; ++i) {
    const char c = static_cast<char>(data[i]);
    if (c == '\n') {
      lines.emplace_back();
    } else if (c != '\0') {
      lines.back() += c;
    }
  }
  std::vector<const char*> argv{"program"};
  for (std::size_t i = 1; i < lines.size(); ++i) argv.push_back(lines[i].c_str());

  _gnl_cmdlin_ctrl ctrl{};
  ctrl.opt_letters = lines[0].c_str();
  ctrl.callback = check_word;
  const int result = gnl_cmdlin(static_cast<int>(argv.size()), argv.data(), &ctrl);
  if ((result == 0) != (gnl_usrmsg[0] == '\0')) std::abort();
  return 0;
}
