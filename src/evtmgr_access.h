#pragma once
// The look upward from timers and watchers to the event manager that the application shell holds.

#include "vornfc/appshell.h"
#include "vornfc/evtmgr.h"
#include "vornfc/exception.h"

namespace vornfc {

// Throws code 3, naming the object by its class and tag, when there is no event manager.
inline VrnEvtMgr* event_manager_for(const char* kind, const char* tag) {
  VrnEvtMgr* const evtmgr = VrnAppShell::evtmgr;
  if (!evtmgr) throw VrnException(3, "%s: No Event Manager for %s", kind, tag);
  return evtmgr;
}

}  // namespace vornfc
