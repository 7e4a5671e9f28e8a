// The layout of a record is fixed: it has microseconds, and the source's name for a process.
#include "log.h"

#include <glog/logging.h>

namespace {

void open(const std::string& path) {
  google::InitGoogleLogging("log");
  google::SetLogDestination(google::INFO, path.c_str());
  google::SetLogSymlink(google::INFO, "");
  FLAGS_logbuflevel = -1;  // every record is flushed
  FLAGS_logbufsecs = 0;
}

void records(int count) {
  for (int i = 0; i < count; ++i) {
    LOG(INFO) << "Request " << i << " of the session was answered after " << 93L << " us";
  }
}

void filtered(int count) {
  for (int i = 0; i < count; ++i) {
    next_record();
    VLOG(1) << "Request " << i << " of the session was answered after " << 93L << " us";
  }
}

const compare::Enter<Log> entry("glog", {open, records, filtered});

}  // namespace
