#include "log.h"

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>

namespace {

Poco::Logger* logger;

void open(const std::string& path) {
  Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
  file->setProperty("flush", "true");
  Poco::AutoPtr<Poco::PatternFormatter> formatter(
      new Poco::PatternFormatter("%Y%m%d-%H:%M:%S.%i %p %s-%P-%I %t"));
  formatter->setProperty("times", "local");
  Poco::AutoPtr<Poco::FormattingChannel> channel(new Poco::FormattingChannel(formatter, file));
  logger = &Poco::Logger::create("log", channel, Poco::Message::PRIO_INFORMATION);
}

void records(int count) {
  for (int i = 0; i < count; ++i) {
    if (logger->information()) {
      logger->information("Request %d of the session was answered after %ld us", i, 93L);
    }
  }
}

void filtered(int count) {
  for (int i = 0; i < count; ++i) {
    next_record();
    if (logger->debug()) {
      logger->debug("Request %d of the session was answered after %ld us", i, 93L);
    }
  }
}

const compare::Enter<Log> entry("poco", {open, records, filtered});

}  // namespace
