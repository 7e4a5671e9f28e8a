/// The support library: command line, one-time initialisation, trace-level names, decimal texts and
/// time differences.
///
/// libvornfc_mt.so leaves these symbols undefined; the application brings them, as a rule by
/// linking libvornsupport.a. Every function and variable has an object file of its own there, so
/// that an application may define any of them itself and takes the others from the archive.
///
/// Threads: gnl_prognam, gnl_usrmsg, gnl_cmdlin and gnl_init belong to the thread that runs main();
/// the remaining functions may be called from any thread. No function takes a lock or throws an
/// exception of its own.

#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

// A definition that the application brings must reach the shared library whatever the visibility
// that the application is compiled with.
#pragma GCC visibility push(default)

extern "C" {

/// The program's base name. Null until the entry point has set it; points into argv[0], so nobody
/// frees it.
extern char* gnl_prognam;

/// Bytes in gnl_usrmsg, the terminating 0 included.
constexpr std::size_t GNL_USRMSG_SIZE = 1024;

/// The text of the last failure of gnl_cmdlin() or gnl_init(), always terminated, empty after a
/// success and at the start. At most GNL_USRMSG_SIZE bytes are written, which is the least size of
/// a replacement that is used with the functions of the archive; longer texts are cut.
extern char gnl_usrmsg[];

/// What gnl_cmdlin() is to parse and whom it tells. The caller owns the record and all that it
/// points to; gnl_cmdlin() changes nothing in it and keeps no pointer after its return.
///
/// 72 bytes, a layout shared with libvornfc_mt.so; reserved fields are zero.
struct _gnl_cmdlin_ctrl {
  /// Option letters. A letter followed by ':' takes an argument; of a letter declared twice the
  /// last declaration counts. Null or empty: no options.
  const char* opt_letters;

  /// Describes the positional parameters in messages ("SOURCE TARGET"). Null or empty: no text.
  const char* param_text;

  void* reserved_16;  ///< Zero.

  /// Called for every option and every positional parameter, in the order of the command line.
  ///
  /// Option: `is_switch` 1, `opt` the letter, `arg` its argument or null when it takes none.
  /// Positional parameter: `is_switch` 0, `opt` its number counted from 1, `arg` its text. `arg`
  /// lives as long as argv. `ctrl` is the record given to gnl_cmdlin().
  /// Result GNL_REJECTED: the word is not accepted and the command line is malformed; any other: go
  /// on. An exception passes through gnl_cmdlin() and leaves gnl_usrmsg as it was.
  int (*callback)(struct _gnl_cmdlin_ctrl* ctrl, int is_switch, int opt, const char* arg);

  void* user;  ///< For the callback's use, never looked at.

  std::int32_t min_params;  ///< Least number of positional parameters; 0 or less: none is needed.
  std::int32_t max_params;  ///< Greatest number of positional parameters; 0 or less: no limit.

  void* reserved_48[3];  ///< Zero.
};

/// What the application's start sequence hands to gnl_init(). The caller owns the record.
///
/// 136 bytes, a layout shared with libvornfc_mt.so; reserved fields are zero.
struct gnl_init_ctrl {
  std::int32_t reserved_0[3];      ///< Zero.
  std::int32_t has_cmdlin;         ///< 1: `cmdlin` below is in use.
  void* reserved_16[4];            ///< Zero.
  std::uint32_t flags;             ///< GNL_INIT_DAEMON or 0.
  std::int32_t reserved_52[3];     ///< Zero.
  struct _gnl_cmdlin_ctrl cmdlin;  ///< What gnl_cmdlin() was given.
};

/// Result of the command-line callback: the option or parameter is not accepted.
constexpr int GNL_REJECTED = 3;

/// Bit of gnl_init_ctrl::flags: the application was asked to run as a daemon.
constexpr std::uint32_t GNL_INIT_DAEMON = 1;

/// Parses argv[1] to argv[argc - 1] and calls the record's callback for each word as it is met.
///
/// A word that begins with '-' and has more is a cluster of option letters. An option's argument is
/// the rest of its word or, when nothing is left, the whole next word, whatever that looks like. A
/// lone "-" and every word after "--" are positional parameters; before "--" options and parameters
/// mix freely. A null word ends the command line.
///
/// Returns 0 and empties gnl_usrmsg when all is well. Returns 1, with the reason in gnl_usrmsg, for
/// an undeclared letter, a missing argument, a rejected word or a wrong number of parameters, and
/// when argv, ctrl or the callback is null. Words before the faulty one have been passed to the
/// callback by then, later ones are not.
int gnl_cmdlin(int argc, const char* const* argv, struct _gnl_cmdlin_ctrl* ctrl);

/// The one-time initialisation, called once the command line and the configuration are read. Keeps
/// no pointer to the record. Returns 0 and empties gnl_usrmsg; with a null record it returns 1 and
/// leaves the reason there.
int gnl_init(struct gnl_init_ctrl* ctrl);

/// The symbol of a trace level: "MUST", "ERR", "WARN", "INFO", "DBG" and "TRC" for 0 to 5, "L" and
/// the number for any other level ("L7"). Never null, at most 12 characters. The text is valid
/// until the calling thread's next call; the caller copies what it wants to keep.
const char* trc_lvl2sym(int level);

/// The level that a symbol of trc_lvl2sym() stands for; upper and lower case are the same, and
/// every level is read back from its own symbol. -1 when `symbol` is null or unknown.
int trc_sym2lvl(const char* symbol);

/// 1 when `text` is a decimal integer of any size: an optional '+' or '-', then digits and nothing
/// else, no blanks either. 0 otherwise, and for a null or empty text.
int isdecstr(const char* text);

/// The microseconds from `*from` to `*to`: positive when `*to` is later. The seconds and
/// microseconds may have any value, a microseconds part outside 0 to 999999 counts as it stands. A
/// distance beyond the range of int (about 35 minutes and 47 seconds) gives INT_MAX or INT_MIN.
/// Neither pointer may be null.
int utime_diff(const struct timeval* from, const struct timeval* to);

}  // extern "C"

#pragma GCC visibility pop

static_assert(offsetof(_gnl_cmdlin_ctrl, opt_letters) == 0);
static_assert(offsetof(_gnl_cmdlin_ctrl, param_text) == 8);
static_assert(offsetof(_gnl_cmdlin_ctrl, reserved_16) == 16);
static_assert(offsetof(_gnl_cmdlin_ctrl, callback) == 24);
static_assert(offsetof(_gnl_cmdlin_ctrl, user) == 32);
static_assert(offsetof(_gnl_cmdlin_ctrl, min_params) == 40);
static_assert(offsetof(_gnl_cmdlin_ctrl, max_params) == 44);
static_assert(offsetof(_gnl_cmdlin_ctrl, reserved_48) == 48);
static_assert(sizeof(_gnl_cmdlin_ctrl) == 72);

static_assert(offsetof(gnl_init_ctrl, reserved_0) == 0);
static_assert(offsetof(gnl_init_ctrl, has_cmdlin) == 12);
static_assert(offsetof(gnl_init_ctrl, reserved_16) == 16);
static_assert(offsetof(gnl_init_ctrl, flags) == 48);
static_assert(offsetof(gnl_init_ctrl, reserved_52) == 52);
static_assert(offsetof(gnl_init_ctrl, cmdlin) == 64);
static_assert(sizeof(gnl_init_ctrl) == 136);
