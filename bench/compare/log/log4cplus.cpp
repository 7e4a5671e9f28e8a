#include "log.h"

#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

namespace {

log4cplus::Logger logger;

void open(const std::string& path) {
  static log4cplus::Initializer initializer;
  log4cplus::SharedAppenderPtr appender(
      new log4cplus::FileAppender(path, std::ios_base::app, true));  // true: flush each record
  appender->setLayout(
      std::make_unique<log4cplus::PatternLayout>("%D{%Y%m%d-%H:%M:%S.%q} %p %c-%i-%t %m%n"));
  logger = log4cplus::Logger::getInstance("log");
  logger.addAppender(appender);
  logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

void records(int count) {
  for (int i = 0; i < count; ++i) {
    LOG4CPLUS_INFO_FMT(logger, "Request %d of the session was answered after %ld us", i, 93L);
  }
}

void filtered(int count) {
  for (int i = 0; i < count; ++i) {
    next_record();
    LOG4CPLUS_DEBUG_FMT(logger, "Request %d of the session was answered after %ld us", i, 93L);
  }
}

const compare::Enter<Log> entry("log4cplus", {open, records, filtered});

}  // namespace
