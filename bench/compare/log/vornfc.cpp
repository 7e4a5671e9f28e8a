#include "log.h"
#include "vornfc/log.h"

namespace {

vornfc::VrnLog* logger;

void open(const std::string& path) {
  logger = vornfc::VrnLog::create("log", path.c_str(), "INFO", nullptr, "MILLI", nullptr);
}

void records(int count) {
  for (int i = 0; i < count; ++i) {
    logger->log(3, "Request %d of the session was answered after %ld us", i, 93L);
  }
}

void filtered(int count) {
  for (int i = 0; i < count; ++i) {
    next_record();
    logger->log(4, "Request %d of the session was answered after %ld us", i, 93L);
  }
}

const compare::Enter<Log> entry("vornfc", {open, records, filtered});

}  // namespace
