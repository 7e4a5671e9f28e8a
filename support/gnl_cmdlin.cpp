#include "vornsupport/support.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

enum class Letter { Undeclared, Plain, TakesArgument };

Letter declared(const char* opt_letters, char letter) {
  if (opt_letters == nullptr || letter == ':') return Letter::Undeclared;
  const char* const last = std::strrchr(opt_letters, letter);
  if (last == nullptr) return Letter::Undeclared;
  return last[1] == ':' ? Letter::TakesArgument : Letter::Plain;
}

// Leaves the reason in gnl_usrmsg. Always false, for the caller to return.
__attribute__((format(printf, 1, 2))) bool malformed(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(gnl_usrmsg, GNL_USRMSG_SIZE, fmt, args);
  va_end(args);
  return false;
}

// One pass over the words of a command line. Every helper returns false once the line is malformed.
struct CommandLine {
  bool parse();
  bool parse_cluster(const char* letters);
  bool parse_option(char letter, const char* arg);
  bool parse_param(const char* text);
  bool check_param_count(bool in_order, const char* complaint, int bound) const;

  // Null after the last word.
  const char* next_word() { return next < argc ? argv[next++] : nullptr; }

  bool accepted(int is_switch, int opt, const char* arg) const {
    return ctrl->callback(ctrl, is_switch, opt, arg) != GNL_REJECTED;
  }

  int argc;
  const char* const* argv;
  _gnl_cmdlin_ctrl* ctrl;
  int next = 1;
  int params = 0;  // met so far
};

bool CommandLine::parse() {
  bool options_ended = false;
  while (const char* word = next_word()) {
    const bool is_option = !options_ended && word[0] == '-' && word[1] != '\0';
    if (!is_option) {
      if (!parse_param(word)) return false;
    } else if (std::strcmp(word, "--") == 0) {
      options_ended = true;
    } else if (word[1] == '-') {
      return malformed("unknown option %s", word);
    } else if (!parse_cluster(word + 1)) {
      return false;
    }
  }
  return check_param_count(params >= ctrl->min_params, "too few parameters, at least",
                           ctrl->min_params);
}

bool CommandLine::parse_cluster(const char* letters) {
  for (const char* at = letters; *at != '\0'; ++at) {
    switch (declared(ctrl->opt_letters, *at)) {
      case Letter::Undeclared: return malformed("unknown option -%c", *at);
      case Letter::Plain:
        if (!parse_option(*at, nullptr)) return false;
        break;
      case Letter::TakesArgument: {
        const char* const arg = at[1] != '\0' ? at + 1 : next_word();
        if (arg == nullptr) return malformed("option -%c needs an argument", *at);
        return parse_option(*at, arg);
      }
    }
  }
  return true;
}

bool CommandLine::parse_option(char letter, const char* arg) {
  if (accepted(1, static_cast<unsigned char>(letter), arg)) return true;
  if (arg == nullptr) return malformed("option -%c rejected", letter);
  return malformed("option -%c rejected: %s", letter, arg);
}

bool CommandLine::parse_param(const char* text) {
  ++params;
  if (!check_param_count(ctrl->max_params <= 0 || params <= ctrl->max_params,
                         "too many parameters, at most", ctrl->max_params)) {
    return false;
  }
  if (accepted(0, params, text)) return true;
  return malformed("parameter %d rejected: %s", params, text);
}

bool CommandLine::check_param_count(bool in_order, const char* complaint, int bound) const {
  if (in_order) return true;
  if (ctrl->param_text == nullptr || *ctrl->param_text == '\0') {
    return malformed("%s %d", complaint, bound);
  }
  return malformed("%s %d: %s", complaint, bound, ctrl->param_text);
}

}  // namespace

int gnl_cmdlin(int argc, const char* const* argv, _gnl_cmdlin_ctrl* ctrl) {
  bool well_formed = false;
  if (argv == nullptr || ctrl == nullptr || ctrl->callback == nullptr) {
    malformed("no command line, control record or callback");
  } else {
    well_formed = CommandLine{argc, argv, ctrl}.parse();
  }
  if (!well_formed) return 1;
  gnl_usrmsg[0] = '\0';
  return 0;
}
