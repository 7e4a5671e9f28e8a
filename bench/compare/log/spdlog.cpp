// The formatting library has a function named as our namespace, so its header comes first.
// clang-format off
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "log.h"
// clang-format on

namespace {

std::shared_ptr<spdlog::logger> logger;

void open(const std::string& path) {
  logger = spdlog::basic_logger_mt("log", path);
  logger->set_pattern("%Y%m%d-%H:%M:%S.%e %l %n-%P-%t %v");
  logger->flush_on(spdlog::level::trace);
}

void records(int count) {
  for (int i = 0; i < count; ++i) {
    logger->info("Request {} of the session was answered after {} us", i, 93L);
  }
}

void filtered(int count) {
  for (int i = 0; i < count; ++i) {
    next_record();
    logger->debug("Request {} of the session was answered after {} us", i, 93L);
  }
}

const compare::Enter<Log> entry("spdlog", {open, records, filtered});

}  // namespace
