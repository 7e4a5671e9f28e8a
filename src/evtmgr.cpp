#include "vornfc/evtmgr.h"

#include "vornfc/appshell.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

namespace vornfc {

namespace {

constexpr int DontCreate = 1;
constexpr int MustNotExist = 2;
constexpr int NullIfExists = 4;
constexpr int MustExist = 8;

std::string object_tag(const std::string& name, const void* object) {
  char buf[32];
  return objtag(name, object, buf);
}

}  // namespace

VrnMutex VrnEvtMgr::mtx(nullptr, false);
VrnEvtMgr* VrnEvtMgr::singleton = nullptr;

VrnEvtMgr* VrnEvtMgr::instance(int flags) {
  VrnMutexGuard guard(&mtx);
  if (singleton) {
    if (flags & MustNotExist) throw VrnException(6, "EvtMgr.instance: already exists");
    return flags & NullIfExists ? nullptr : singleton;
  }
  if (flags & MustExist) throw VrnException(6, "EvtMgr.instance: doesn't exist");
  if (flags & DontCreate) return nullptr;
  return new VrnEvtMgrNative;  // its constructor sets the singleton
}

void VrnEvtMgr::destroy() {
  VrnMutexGuard guard(&mtx);
  delete singleton;
}

VrnEvtMgr::VrnEvtMgr() {
  if (singleton) throw VrnException(6, "Duplicate EvtMgr");
  singleton = this;
}

VrnEvtMgr::~VrnEvtMgr() {
  singleton = nullptr;
  // A look upward: timers and watchers that outlive the manager must find none rather than a
  // dangling one.
  if (VrnAppShell::evtmgr == this) VrnAppShell::evtmgr = nullptr;
}

VrnAIO::VrnAIO(bool isInput, const std::string& name)
    : mutex(new VrnMutex(object_tag(name, this).c_str(), false)),
      input(isInput),
      tag(object_tag(name, this)) {}

VrnAIO::~VrnAIO() {
  VrnEvtMgrNative::forget(this);
}

VrnSignalHandler::~VrnSignalHandler() {
  VrnEvtMgrNative::forget(this);
}

}  // namespace vornfc
