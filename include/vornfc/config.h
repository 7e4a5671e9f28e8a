#pragma once
/// Configuration files: groups of items, each with an ordered list of text values.

#include "vornfc/export.h"
#include "vornfc/notifier.h"

#include <strings.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace vornfc {

struct ImplConfig;

/// Orders texts as strcasecmp() does: upper and lower case are the same.
struct VORNFC_EXPORT VrnNocaseStringLess {
  /// Whether `a` comes before `b`. A text counts up to its first NUL.
  bool operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  }
};

/// What a configuration file says. docs/config-format.md describes the file. Names of groups and
/// items are looked up without regard to case; results are copies.
///
/// Copies are independent snapshots of the content and of the file's name.
/// Threads: no lock. Any threads may query at the same time while none updates or assigns.
/// Errors: in a look-up, `mustExist` makes what is missing a VrnException 9; otherwise the result
/// is empty. Only the functions that say so throw anything else.
class VORNFC_EXPORT VrnConfig {
 public:
  VrnConfig();  ///< An empty configuration without a file.

  /// Reads the file at once. A relative name is taken from the current directory of this moment,
  /// for later updates as well; filename() and messages have the name as given.
  ///
  /// Throws VrnException 3 when `filename` is empty; 9 when the file cannot be opened or read, and
  /// for the first line that is not well formed.
  explicit VrnConfig(const std::string& filename);

  VrnConfig(const VrnConfig& other);  ///< The content and the file's name; reads no file.
  VrnConfig& operator=(const VrnConfig& other);  ///< The same, in place of what there was.
  ~VrnConfig();

  /// Forgets the content and reads the file again, changed or not; without a file the result is
  /// empty. Throws VrnException 9 as the constructor does; what was read before the faulty line is
  /// then the content.
  void update();

  std::string filename() const;  ///< As given; empty without a file.

  bool exists(const std::string& group) const;  ///< Whether there is such a group.
  bool exists(const std::string& group, const std::string& item) const;  ///< The same of an item.

  std::vector<std::string> groups() const;  ///< In the order and the case of the file.

  /// The item names of a group, in the order and the case of the file; `mustExist`: the group.
  std::vector<std::string> items(const std::string& group, bool mustExist) const;

  /// The values of an item, in order; an item may have none.
  std::vector<std::string> values(const std::string& group, const std::string& item,
                                  bool mustExist) const;

  /// One value of an item; `index` counts from 0.
  std::string value(const std::string& group, const std::string& item, bool mustExist,
                    unsigned int index) const;

  /// The value read as a boolean: "Yes", "Y" or "true", "No", "N" or "false", in either case.
  /// `defval` when the value is missing or empty; throws VrnException 9 for any other text.
  bool boolval(const std::string& group, const std::string& item, bool defval,
               unsigned int index) const;

  /// The value read as a decimal integer, cut to the bits of an int. `defval` when the value is
  /// missing or empty; throws VrnException 9 for a text that isdecstr() does not accept. One beyond
  /// the range of a long counts as the nearest long.
  int intval(const std::string& group, const std::string& item, int defval,
             unsigned int index) const;

  /// Writes the content as a configuration file, groups and items in alphabetical order. The file
  /// reads back as the same content, except for values that begin or end with a double quote.
  /// Throws VrnException 3 when `stream` is null; whether the writing succeeded, the stream tells.
  void dump(std::FILE* stream) const;

 private:
  std::unique_ptr<ImplConfig> impl;
};

/// The configuration of a process, and the group in it that concerns the process. Observers are
/// notified after the file was read again. Named "Config=" and the file's name.
class VORNFC_EXPORT VrnConfigMgr : public VrnNotifier {
 public:
  /// Owns `cfg` from a successful return on. Throws VrnException 3 when it is null.
  VrnConfigMgr(VrnConfig* cfg, const std::string& topGroup);
  VrnConfigMgr(const VrnConfigMgr&) = delete;
  VrnConfigMgr& operator=(const VrnConfigMgr&) = delete;
  ~VrnConfigMgr() override;  ///< Deletes the configuration, then detaches the observers.

  VrnConfig* config;  ///< Owned; null: none.
  std::string group;  ///< The top-level group; may be empty, need not exist.
};

}  // namespace vornfc
