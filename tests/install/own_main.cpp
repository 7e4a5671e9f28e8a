// A program that uses the library and keeps its own main, although it needs the event manager and
// with that the part of the library that has another. What the library throws and makes is known
// here by its type.

#include <vornfc/evtmgr_native.h>
#include <vornfc/exception.h>
#include <vornfc/mutex.h>

#include <cstdio>
#include <stdexcept>

int main() {
  vornfc::VrnMutex mutex("mine");
  try {
    const vornfc::VrnMutexGuard guard(&mutex);
    throw vornfc::VrnException(9, "thrown in %s", "own main");
  } catch (...) {
    std::puts(vornfc::VrnException::handler().c_str());
  }

  if (dynamic_cast<vornfc::VrnEvtMgrNative*>(vornfc::VrnEvtMgr::instance()) != nullptr)
    std::puts("an event manager of the known kind");
  try {
    vornfc::VrnEvtMgrNative second;
  } catch (const vornfc::VrnException& e) {
    std::printf("exception %d\n", e.err());
  }
  try {
    vornfc::VrnEvtMgrNative second;
  } catch (const std::runtime_error& e) {
    std::puts(e.what());
  }
  return 0;
}
