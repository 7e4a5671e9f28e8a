#pragma once
/// The whole library.

#include "vornfc/appshell.h"
#include "vornfc/async_rcvr.h"
#include "vornfc/config.h"
#include "vornfc/evtmgr.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/file.h"
#include "vornfc/log.h"
#include "vornfc/mutex.h"
#include "vornfc/notifier.h"
#include "vornfc/server_socket.h"
#include "vornfc/socket.h"
#include "vornfc/timer.h"
#include "vornfc/utils.h"
