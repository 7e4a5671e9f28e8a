#include "config.h"

#include <glib.h>

namespace {

void* load(const char* path) {
  GKeyFile* const file = g_key_file_new();
  if (!g_key_file_load_from_file(file, path, G_KEY_FILE_NONE, nullptr)) std::abort();
  return file;
}

void unload(void* loaded) {
  g_key_file_free(static_cast<GKeyFile*>(loaded));
}

size_t look_up(void* loaded, const std::vector<Name>& names) {
  auto* const file = static_cast<GKeyFile*>(loaded);
  size_t length = 0;
  for (const Name& name : names) {
    gchar* const value =
        g_key_file_get_string(file, name.group.c_str(), name.item.c_str(), nullptr);
    if (!value) continue;
    length += std::strlen(value);
    g_free(value);
  }
  return length;
}

const compare::Enter<Config> entry("glib", {load, unload, look_up});

}  // namespace
