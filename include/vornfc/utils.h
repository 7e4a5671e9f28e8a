#pragma once
/// The diagnostic call, the two assertions and the small text helpers that every component uses.

#include "vornfc/export.h"

#include <cstdarg>
#include <string>

namespace vornfc {

/// Writes one diagnostic line. `level`: 0 must-see notice, 1 error that is reported instead of
/// thrown, 3 progress, 4 tracing, 5 finest detail; 2 is free. `fmt` is a printf format without a
/// line end; null: "<NULL>".
///
/// Once the application shell has a logger, the line goes to that logger, which has a level filter
/// of its own. Until then it goes to standard error as "*** PID=<pid>: <text>"; levels 3 and above
/// only if VORNTRC_APPTAG is "y" (in either case), which is looked up once, at the first line of
/// any level that takes this way.
///
/// Threads: any. Locks: the logger's own, see VrnLog::log(). None is taken on the way to standard
/// error, where the prefix, the text and the line end are separate writes, so lines of concurrent
/// callers may interleave. Errors: none, whatever the logger throws: the line is then lost; `errno`
/// is left as it was.
VORNFC_EXPORT void vrnlog(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

/// The same with the arguments in `ap`, which the call uses up: the caller may only va_end() it.
VORNFC_EXPORT void vrnlog(va_list ap, int level, const char* fmt)
    __attribute__((format(printf, 3, 0)));

/// Throws VrnException 3 with `text` (null: "<NULL>") unless `cond`. Neither logs nor aborts.
VORNFC_EXPORT void VrnAssertBasic(bool cond, const char* text);

/// Throws VrnException 3 with the message that `fmt`, a printf format (null: "<NULL>"), makes of
/// the arguments, unless `cond`. Neither logs nor aborts.
VORNFC_EXPORT void VrnAssertFull(bool cond, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

/// Prints `value` with `fmt`, which has one integer conversion, into `buf` and returns `buf`. A
/// conversion that takes an int ("%d", "%x") prints the low 32 bits of `value`.
///
/// The caller's `buf` has room for the whole text: nothing bounds it here. With a null `buf` the
/// text, cut to 30 characters, goes to a static buffer that all such callers on all threads share.
/// Throws VrnException 3 when `fmt` is null.
VORNFC_EXPORT char* num2buf(const char* fmt, long value, char* buf = nullptr);

/// The same with the format "%d".
VORNFC_EXPORT char* num2buf(long value, char* buf = nullptr);

/// The name of an object in messages: `tag`, or, when that is null or empty, the low 32 bits of the
/// object's address as "0x%x", printed by num2buf() into `buf` (11 bytes suffice). The result is
/// `tag` itself or the buffer, and lives as long as that.
VORNFC_EXPORT const char* objtag(const char* tag, const void* obj, char* buf = nullptr);

/// The same; the result may be the character data of `tag`.
VORNFC_EXPORT const char* objtag(const std::string& tag, const void* obj, char* buf = nullptr);

/// Trims white space, as isspace() defines it, from both ends of `s`, in place. With `shift` the
/// trimmed text is moved to the start of `s` and the result is `s`; without, the result points to
/// the first character that is kept. Nothing but white space gives an empty text.
/// Throws VrnException 3 when `s` is null.
VORNFC_EXPORT char* strip(char* s, bool shift);

/// Replaces `s` by its trimmed text and returns its character data. An empty `s` is left alone and
/// the result is a static empty text.
VORNFC_EXPORT const char* strip(std::string& s);

}  // namespace vornfc
