#pragma once
// The faults that each call is made to meet.

#include "inject.h"

#include <string>
#include <vector>

namespace inject {

const char* name_of(Call call);
bool call_named(const std::string& name, Call* call);

// As the manual page of the call lists them, then short counts and storms where they may occur.
std::vector<Fault> faults_of(Call call);

// "EIO", "EINTR*50", "short-one", "short-half"
std::string text_of(const Fault& fault);
bool fault_named(const std::string& text, Fault* fault);

// The library has to get over it as if nothing had happened.
bool is_harmless(Call call, const Fault& fault);

}  // namespace inject
