// vornfc-conf: checks configuration files, prints them and their values. docs/man/vornfc-conf.1
// says what each command does.
#include "checker.h"
#include "json.h"
#include "vornfc/config.h"
#include "vornfc/exception.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace vornfc::conf {

namespace {

enum Status { Clean, Warnings, Errors };

constexpr const char* HELP =
    "usage: vornfc-conf check [--json] [--strict] [--logger GROUP]... FILE...\n"
    "       vornfc-conf dump [--json] FILE\n"
    "       vornfc-conf get [--json] FILE GROUP ITEM [INDEX]\n"
    "       vornfc-conf --help | --version\n"
    "\n"
    "check  reports every error of the files, and what is hardly meant\n"
    "dump   prints a file as it is understood, in alphabetical order\n"
    "get    prints the values of an item, or the one with the given index, counted from 0\n"
    "\n"
    "FILE may be \"-\" for standard input.\n"
    "  --json          write JSON\n"
    "  --strict        warnings count: exit with status 1\n"
    "  --logger GROUP  check GROUP as the settings of a logger\n"
    "\n"
    "Exit status: 0 clean, 1 warnings with --strict, 2 errors.\n";

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Ends the command with status Errors.
struct Failure : std::runtime_error {
  using runtime_error::runtime_error;
};

Failure system_failure(const std::string& what) {
  return Failure(what + ": " + std::strerror(errno));
}

Failure usage_error(const std::string& what) {
  return Failure(what + " (see \"vornfc-conf --help\")");
}

struct Request {
  std::string command;
  std::vector<std::string> operands;
  std::vector<std::string> loggers;
  bool json = false;
  bool strict = false;
};

// `elements` on a line each, between brackets.
std::string json_array(const std::vector<std::string>& elements) {
  std::string result;
  for (const std::string& element : elements) result += (result.empty() ? "\n" : ",\n") + element;
  return "[" + result + (elements.empty() ? "]" : "\n]");
}

std::string json_strings(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + json_string(text);
  return "[" + result + "]";
}

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

// check

std::vector<Finding> check_file(const std::string& name, const std::vector<std::string>& loggers) {
  if (name == "-") return check_stream(stdin, name, loggers);
  const File file(std::fopen(name.c_str(), "re"));
  if (file) return check_stream(file.get(), name, loggers);
  return {{name, 0, true, std::string("Failed to open file [") + std::strerror(errno) + "]"}};
}

std::string as_text(const Finding& finding) {
  const std::string line = finding.line == 0 ? "" : ":" + std::to_string(finding.line);
  return finding.file + line + ": " + (finding.error ? "" : "warning: ") + finding.text + "\n";
}

std::string as_json(const Finding& finding) {
  return "{\"file\": " + json_string(finding.file) +
         ", \"line\": " + (finding.line == 0 ? "null" : std::to_string(finding.line)) +
         ", \"severity\": " + (finding.error ? "\"error\"" : "\"warning\"") +
         ", \"text\": " + json_string(finding.text) + "}";
}

Status check(const Request& request) {
  Status status = Clean;
  std::vector<std::string> elements;
  for (const std::string& name : request.operands) {
    for (const Finding& finding : check_file(name, request.loggers)) {
      if (finding.error) status = Errors;
      if (status == Clean && request.strict) status = Warnings;
      if (request.json) {
        elements.push_back(as_json(finding));
      } else {
        print(as_text(finding));
      }
    }
  }
  if (request.json) print(json_array(elements) + "\n");
  return status;
}

// dump and get

// The library opens files by name. Standard input may have none that can be opened, or have been
// read in part: a copy of what is left takes its place.
std::string name_of_stdin() {
  std::string content;
  char buffer[BUFSIZ];
  while (const std::size_t size = std::fread(buffer, 1, sizeof buffer, stdin)) {
    content.append(buffer, size);
  }
  if (std::ferror(stdin)) throw system_failure("standard input");
  const File copy(std::tmpfile());
  if (!copy || std::fwrite(content.data(), 1, content.size(), copy.get()) != content.size() ||
      std::fflush(copy.get()) != 0 || dup2(fileno(copy.get()), STDIN_FILENO) == -1) {
    throw system_failure("copy of standard input");
  }
  return "/dev/stdin";
}

VrnConfig load(const std::string& name) {
  const std::string path = name == "-" ? name_of_stdin() : name;
  errno = 0;  // what the exception finds there is then the cause
  try {
    return VrnConfig(path);
  } catch (const VrnException& error) {
    // The library's text has the cause of a failed read, but not that of a failed open.
    const std::string text = error.what();
    const std::string cause = std::strerror(error.syserr());
    if (error.syserr() == 0 || text.find(cause) != text.npos) throw Failure(text);
    throw Failure(text + ": " + cause);
  }
}

std::string group_as_json(const VrnConfig& config, const std::string& group) {
  std::vector<std::string> items;
  for (const std::string& item : config.items(group, true)) {
    items.push_back("{\"name\": " + json_string(item) +
                    ", \"values\": " + json_strings(config.values(group, item, true)) + "}");
  }
  return "{\"name\": " + json_string(group) + ", \"items\": " + json_array(items) + "}";
}

Status dump(const Request& request) {
  const VrnConfig config = load(request.operands[0]);
  if (!request.json) {
    config.dump(stdout);
    return Clean;
  }
  std::vector<std::string> groups;
  for (const std::string& group : config.groups()) groups.push_back(group_as_json(config, group));
  print("{\"file\": " + json_string(config.filename()) + ", \"groups\": " + json_array(groups) +
        "}\n");
  return Clean;
}

unsigned parse_index(const std::string& text) {
  unsigned index = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, index);
  if (error != std::errc() || stop != end) throw usage_error("INDEX is not a number: " + text);
  return index;
}

Status get(const Request& request) {
  const auto& words = request.operands;
  const bool indexed = words.size() == 4;
  const unsigned index = indexed ? parse_index(words[3]) : 0;
  const VrnConfig config = load(words[0]);
  std::vector<std::string> values;
  if (indexed) {
    values.push_back(config.value(words[1], words[2], true, index));
  } else {
    values = config.values(words[1], words[2], true);
  }
  if (request.json) {
    print(json_strings(values) + "\n");
  } else {
    for (const std::string& value : values) print(value + "\n");
  }
  return Clean;
}

// The command line

struct Command {
  const char* name;
  Status (*run)(const Request&);
  std::size_t min_operands, max_operands;
};

constexpr Command COMMANDS[] = {
    {"check", check, 1, static_cast<std::size_t>(-1)}, {"dump", dump, 1, 1}, {"get", get, 3, 4}};

const Command& find_command(const Request& request) {
  for (const Command& command : COMMANDS) {
    if (request.command != command.name) continue;
    const std::size_t count = request.operands.size();
    if (count < command.min_operands) throw usage_error(request.command + ": too few arguments");
    if (count > command.max_operands) throw usage_error(request.command + ": too many arguments");
    if (command.run != check && (request.strict || !request.loggers.empty())) {
      throw usage_error("--strict and --logger are for check");
    }
    return command;
  }
  throw usage_error(request.command.empty() ? "no command" : "unknown command: " + request.command);
}

Status run(int argc, char** argv) {
  const option options[] = {
      {"help", no_argument, nullptr, 'h'},         {"json", no_argument, nullptr, 'j'},
      {"logger", required_argument, nullptr, 'l'}, {"strict", no_argument, nullptr, 's'},
      {"version", no_argument, nullptr, 'v'},      {nullptr, 0, nullptr, 0}};
  static char name[] = "vornfc-conf";
  argv[0] = name;  // for the messages of getopt_long()
  Request request;
  for (int opt; (opt = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    switch (opt) {
      case 'h': print(HELP); return Clean;
      case 'j': request.json = true; break;
      case 'l': request.loggers.emplace_back(optarg); break;
      case 's': request.strict = true; break;
      case 'v': print("vornfc-conf " VORNFC_VERSION "\n"); return Clean;
      default: throw usage_error("bad command line");
    }
  }
  if (optind < argc) request.command = argv[optind++];
  request.operands.assign(argv + optind, argv + argc);
  return find_command(request).run(request);
}

int complain(const std::string& text) {
  std::fprintf(stderr, "vornfc-conf: %s\n", text.c_str());
  return Errors;
}

}  // namespace

}  // namespace vornfc::conf

int main(int argc, char** argv) {
  using namespace vornfc::conf;
  try {
    const Status status = run(argc, argv);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) throw system_failure("standard output");
    return status;
  } catch (const std::exception& error) {
    return complain(error.what());
  }
}
