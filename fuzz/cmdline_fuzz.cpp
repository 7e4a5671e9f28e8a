// Command lines. The lines of the input are: a byte for the bounds on the number of parameters and
// for the word that is rejected; the declared letters; the description of the parameters; then one
// word a line. A second reading, which works on the whole list of words, says which calls are made,
// the result and the text that a failure leaves.

#include "fuzzing.h"
#include "vornsupport/support.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

// A call as a text.
std::string told(bool is_switch, int opt, const char* arg) {
  return (is_switch ? "option " : "parameter ") + std::to_string(opt) +
         (arg ? std::string("=") + arg : "");
}

struct Setting {
  std::string letters;
  std::string description;
  int least = 0;
  int most = 0;
  std::size_t rejected = 0;  // the number of the call that is rejected
};

struct Outcome {
  Strings calls;
  std::string failure;  // empty: none
};

// ---- the second reading ----

class Reading {
 public:
  Reading(const Setting& given, const Strings& words) : setting(given) {
    std::vector<Strings> units = split(words);
    for (const Strings& unit : units) {
      if (!outcome.failure.empty()) return;
      if (unit[0] == "parameter") {
        parameter(unit[1]);
      } else if (unit[0] == "fault") {
        outcome.failure = unit[1];
      } else {
        option(unit[1], unit.size() > 2 ? unit[2].c_str() : nullptr);
      }
    }
    if (outcome.failure.empty() && parameters < setting.least) {
      outcome.failure = bound("too few parameters, at least ", setting.least);
    }
  }

  Outcome outcome;

 private:
  enum Kind { Unknown, Plain, WithArgument };

  // The last declaration counts.
  Kind kind_of(char letter) const {
    Kind kind = Unknown;
    for (std::size_t i = 0; i < setting.letters.size(); ++i) {
      if (setting.letters[i] != letter || letter == ':') continue;
      kind = i + 1 < setting.letters.size() && setting.letters[i + 1] == ':' ? WithArgument : Plain;
    }
    return kind;
  }

  // The command line as parameters, options and faults.
  std::vector<Strings> split(const Strings& words) const {
    std::vector<Strings> units;
    bool options = true;
    for (std::size_t at = 0; at < words.size(); ++at) {
      const std::string& word = words[at];
      if (!options || word.empty() || word[0] != '-' || word == "-") {
        units.push_back({"parameter", word});
      } else if (word == "--") {
        options = false;
      } else if (word[1] == '-') {
        units.push_back({"fault", "unknown option " + word});
      } else {
        const std::string* const next = at + 1 < words.size() ? &words[at + 1] : nullptr;
        if (split_cluster(word, next, &units)) ++at;
      }
    }
    return units;
  }

  // True: the next word is the argument of the last letter.
  bool split_cluster(const std::string& word, const std::string* next,
                     std::vector<Strings>* units) const {
    for (std::size_t i = 1; i < word.size(); ++i) {
      const std::string letter = word.substr(i, 1);
      const Kind kind = kind_of(word[i]);
      if (kind == Unknown) {
        units->push_back({"fault", "unknown option -" + letter});
        return false;
      }
      if (kind == Plain) {
        units->push_back({"option", letter});
        continue;
      }
      if (i + 1 < word.size()) {
        units->push_back({"option", letter, word.substr(i + 1)});
        return false;
      }
      if (!next) {
        units->push_back({"fault", "option -" + letter + " needs an argument"});
        return false;
      }
      units->push_back({"option", letter, *next});
      return true;
    }
    return false;
  }

  void option(const std::string& letter, const char* arg) {
    outcome.calls.push_back(told(true, static_cast<unsigned char>(letter[0]), arg));
    if (outcome.calls.size() != setting.rejected) return;
    outcome.failure = "option -" + letter + " rejected" + (arg ? std::string(": ") + arg : "");
  }

  void parameter(const std::string& text) {
    ++parameters;
    if (setting.most > 0 && parameters > setting.most) {
      outcome.failure = bound("too many parameters, at most ", setting.most);
      return;
    }
    outcome.calls.push_back(told(false, parameters, text.c_str()));
    if (outcome.calls.size() != setting.rejected) return;
    outcome.failure = "parameter " + std::to_string(parameters) + " rejected: " + text;
  }

  std::string bound(const std::string& complaint, int number) const {
    return complaint + std::to_string(number) +
           (setting.description.empty() ? "" : ": " + setting.description);
  }

  const Setting& setting;
  int parameters = 0;
};

// ---- the library ----

struct Recorder {
  const Setting* setting;
  Strings calls;
};

int record(_gnl_cmdlin_ctrl* ctrl, int is_switch, int opt, const char* arg) {
  auto* const recorder = static_cast<Recorder*>(ctrl->user);
  require(is_switch == 0 || is_switch == 1, "is_switch is %d", is_switch);
  recorder->calls.push_back(told(is_switch != 0, opt, arg));
  return recorder->calls.size() == recorder->setting->rejected ? GNL_REJECTED : 0;
}

Outcome run(const Setting& setting, const Strings& words) {
  std::vector<const char*> argv{"program"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  Recorder recorder{&setting, {}};
  _gnl_cmdlin_ctrl ctrl{};
  ctrl.opt_letters = setting.letters.c_str();
  ctrl.param_text = setting.description.c_str();
  ctrl.callback = record;
  ctrl.user = &recorder;
  ctrl.min_params = setting.least;
  ctrl.max_params = setting.most;
  const int result = gnl_cmdlin(static_cast<int>(argv.size()), argv.data(), &ctrl);
  require(result == (gnl_usrmsg[0] == '\0' ? 0 : 1), "result %d with text [%s]", result,
          gnl_usrmsg);
  return {recorder.calls, gnl_usrmsg};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Setting setting;
  const std::string numbers = input.line();
  const auto number = numbers.empty() ? 0U : static_cast<unsigned char>(numbers[0]);
  setting.least = static_cast<int>(number % 4) - 1;
  setting.most = static_cast<int>(number / 4 % 4) * 2 - 1;
  setting.rejected = number / 16;
  setting.letters = input.line();
  setting.description = input.line();
  Strings words;
  while (!input.empty()) words.push_back(input.line());

  Outcome expected = Reading(setting, words).outcome;
  expected.failure.resize(std::min(expected.failure.size(), GNL_USRMSG_SIZE - 1));
  const Outcome outcome = run(setting, words);
  require(outcome.calls == expected.calls, "other calls; [%s] and [%s]", outcome.failure.c_str(),
          expected.failure.c_str());
  require(outcome.failure == expected.failure, "[%s] instead of [%s]", outcome.failure.c_str(),
          expected.failure.c_str());
  return 0;
}
