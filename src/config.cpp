#include "vornfc/config.h"

#include "config_parser.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"
#include "vornsupport/support.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace vornfc {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// Makes the first faulty line an exception.
class FirstFault : public ConfigSink {
 public:
  explicit FirstFault(const std::string& name) : filename(name) {}

  void onError(int lineno, const std::string& text) override {
    throw VrnException(9, "VrnConfig %s:%d - %s", filename.c_str(), lineno, text.c_str());
  }

 private:
  const std::string& filename;
};

// The file that `name` means now, also after a change of the current directory.
std::string absolute_path(const std::string& name) {
  std::error_code error;
  const std::string path = std::filesystem::absolute(name, error).string();
  return error ? name : path;
}

// `text` has a NUL behind it.
bool is_one_of(std::string_view text, std::initializer_list<const char*> words) {
  for (const char* word : words) {
    if (strcasecmp(text.data(), word) == 0) return true;
  }
  return false;
}

// The entries of a map in alphabetical order.
template <class Value>
auto sorted(const NocaseMap<Value>& map) {
  std::vector<const std::pair<const std::string, Value>*> entries;
  entries.reserve(map.size());
  for (const auto& entry : map) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(),
            [](const auto* a, const auto* b) { return VrnNocaseStringLess()(a->first, b->first); });
  return entries;
}

void dump_value(std::FILE* stream, std::string_view value) {
  if (value.empty()) return;
  const bool quoted = is_space(value.front()) || is_space(value.back());
  if (quoted) std::fputc('"', stream);
  for (const char c : value) {
    if (c == ';' || c == '\\') std::fputc('\\', stream);
    std::fputc(c, stream);
  }
  if (quoted) std::fputc('"', stream);
}

void dump_item(std::FILE* stream, const std::string& name, const item_t& item) {
  std::fprintf(stream, "%s%c", name.c_str(), '=');
  bool first = true;
  for (const std::string& value : item.values) {
    if (!first) std::fprintf(stream, "%c ", ';');
    first = false;
    dump_value(stream, value);
  }
  std::fprintf(stream, "\n");
}

std::string notifier_name(const VrnConfig* config) {
  if (!config) throw VrnException(3, "VrnConfigMgr: Null VrnConfig");
  return "Config=" + config->filename();
}

}  // namespace

struct ImplConfig {
  void parse_file();

  // Null when missing; with `mustExist` they throw instead.
  const group_t* find_group(const std::string& group, bool mustExist) const;
  const item_t* find_item(const std::string& group, const std::string& item, bool mustExist) const;
  // Null data when missing; otherwise a NUL is behind it.
  std::string_view find_value(const std::string& group, const std::string& item, bool mustExist,
                              unsigned int index) const;

  std::string filename;  // as given; empty: no file
  std::string path;      // the file that was meant when it was given
  ConfigContent content;
};

void ImplConfig::parse_file() {
  if (filename.empty()) return;
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
  if (!file) throw VrnException(9, "VrnConfig: Failed to open file [%s]", filename.c_str());
  FirstFault sink(filename);
  ConfigParser(file.get(), &content, &sink).parse_file();
}

const group_t* ImplConfig::find_group(const std::string& group, bool mustExist) const {
  if (auto it = content.groups.find(group); it != content.groups.end()) return &it->second;
  if (mustExist) throw VrnException(9, "VrnConfig: No such group <%s>", group.c_str());
  return nullptr;
}

const item_t* ImplConfig::find_item(const std::string& group, const std::string& item,
                                    bool mustExist) const {
  const group_t* found = find_group(group, mustExist);
  if (!found) return nullptr;
  if (auto it = found->items.find(item); it != found->items.end()) return &it->second;
  if (mustExist) {
    throw VrnException(9, "VrnConfig: No such item <%s, %s>", group.c_str(), item.c_str());
  }
  return nullptr;
}

std::string_view ImplConfig::find_value(const std::string& group, const std::string& item,
                                        bool mustExist, unsigned int index) const {
  const item_t* found = find_item(group, item, mustExist);
  if (found && index < found->values.size()) return found->values.view(index);
  if (mustExist) {
    throw VrnException(9, "VrnConfig: No such item <%s, %s, %d>", group.c_str(), item.c_str(),
                       static_cast<int>(index));
  }
  return {};
}

VrnConfig::VrnConfig() : impl(std::make_unique<ImplConfig>()) {}

VrnConfig::VrnConfig(const std::string& filename) : impl(std::make_unique<ImplConfig>()) {
  VrnAssertFull(!filename.empty(), "VrnConfig: Blank filename supplied !");
  impl->filename = filename;
  impl->path = absolute_path(filename);
  impl->parse_file();
}

VrnConfig::VrnConfig(const VrnConfig& other) : impl(std::make_unique<ImplConfig>(*other.impl)) {}

VrnConfig& VrnConfig::operator=(const VrnConfig& other) {
  if (this != &other) impl = std::make_unique<ImplConfig>(*other.impl);
  return *this;
}

VrnConfig::~VrnConfig() = default;

void VrnConfig::update() {
  impl->content = {};
  impl->parse_file();
}

std::string VrnConfig::filename() const {
  return impl->filename;
}

bool VrnConfig::exists(const std::string& group) const {
  return impl->find_group(group, false) != nullptr;
}

bool VrnConfig::exists(const std::string& group, const std::string& item) const {
  return impl->find_item(group, item, false) != nullptr;
}

std::vector<std::string> VrnConfig::groups() const {
  return impl->content.grpnams;
}

std::vector<std::string> VrnConfig::items(const std::string& group, bool mustExist) const {
  const group_t* found = impl->find_group(group, mustExist);
  std::vector<std::string> names;
  if (found) {
    names.reserve(found->itemnams.size());
    for (const std::string* name : found->itemnams) names.push_back(*name);
  }
  return names;
}

std::vector<std::string> VrnConfig::values(const std::string& group, const std::string& item,
                                           bool mustExist) const {
  const item_t* found = impl->find_item(group, item, mustExist);
  return found ? found->values : std::vector<std::string>();
}

std::string VrnConfig::value(const std::string& group, const std::string& item, bool mustExist,
                             unsigned int index) const {
  return std::string(impl->find_value(group, item, mustExist, index));
}

bool VrnConfig::boolval(const std::string& group, const std::string& item, bool defval,
                        unsigned int index) const {
  const std::string_view text = impl->find_value(group, item, false, index);
  if (text.empty()) return defval;
  if (is_one_of(text, {"Yes", "Y", "true"})) return true;
  if (is_one_of(text, {"No", "N", "false"})) return false;
  throw VrnException(9, "VrnConfig: Invalid Boolean value=%s <%s, %s, %d>", text.data(),
                     group.c_str(), item.c_str(), static_cast<int>(index));
}

int VrnConfig::intval(const std::string& group, const std::string& item, int defval,
                      unsigned int index) const {
  const std::string_view text = impl->find_value(group, item, false, index);
  if (text.empty()) return defval;
  if (!isdecstr(text.data())) {
    throw VrnException(9, "VrnConfig: Invalid Integer value=%s <%s, %s, %d>", text.data(),
                       group.c_str(), item.c_str(), static_cast<int>(index));
  }
  return static_cast<int>(std::strtol(text.data(), nullptr, 10));
}

void VrnConfig::dump(std::FILE* stream) const {
  const char* const name = impl->filename.c_str();
  const auto& groups = impl->content.groups;
  const auto& grpnams = impl->content.grpnams;
  VrnAssertFull(stream != nullptr, "VrnConfig %s: Null stream for dump", name);
  std::fprintf(stream, "%c Filename = %s\n", '#', name);
  std::fprintf(stream, "%c %ld Groups\n", '#', static_cast<long>(groups.size()));
  for (const auto* entry : sorted(groups)) {
    const group_t& group = entry->second;
    std::fprintf(stream, "\n%c%s%c\n", '[', group.name.c_str(), ']');
    std::fprintf(stream, "%c %ld Items\n", '#', static_cast<long>(group.items.size()));
    for (const auto* item : sorted(group.items)) dump_item(stream, item->first, item->second);
    VrnAssertFull(group.items.size() == group.itemnams.size(),
                  "VrnConfig %s: In Group %s, items=%d but itemnams=%d", name, group.name.c_str(),
                  static_cast<int>(group.items.size()), static_cast<int>(group.itemnams.size()));
  }
  VrnAssertFull(groups.size() == grpnams.size(), "VrnConfig %s: groups=%d but grpnams=%d", name,
                static_cast<int>(groups.size()), static_cast<int>(grpnams.size()));
}

VrnConfigMgr::VrnConfigMgr(VrnConfig* cfg, const std::string& topGroup)
    : VrnNotifier(notifier_name(cfg)), config(cfg), group(topGroup) {}

VrnConfigMgr::~VrnConfigMgr() {
  delete config;
}

}  // namespace vornfc
