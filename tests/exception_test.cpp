#include "vornfc/exception.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace vornfc {
namespace {

__attribute__((format(printf, 2, 3))) VrnException by_list(int err, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  VrnException result(ap, err, fmt);
  va_end(ap);
  return result;
}

template <typename Thrown>
std::string described(const Thrown& thrown) {
  try {
    throw thrown;
  } catch (...) {
    return VrnException::handler();
  }
}

TEST(ExceptionTest, CarriesCodeErrnoAndMessage) {
  errno = ENOENT;
  const VrnException e(9, "%s has %d", "group", 2);
  errno = 0;
  EXPECT_EQ(e.err(), 9);
  EXPECT_EQ(e.syserr(), ENOENT);
  EXPECT_STREQ(e.what(), "group has 2");
}

TEST(ExceptionTest, ListFormIsTheSame) {
  errno = ENOENT;
  const VrnException e = by_list(9, "%s has %d", "group", 2);
  EXPECT_EQ(e.err(), 9);
  EXPECT_EQ(e.syserr(), ENOENT);
  EXPECT_STREQ(e.what(), "group has 2");
}

TEST(ExceptionTest, BaseHasAFixedText) {
  const VrnException e(3, "%s", "message");
  EXPECT_STREQ(e.std::runtime_error::what(), "VornFC");
}

TEST(ExceptionTest, IsCaughtAsRuntimeErrorWithItsMessage) {
  try {
    throw VrnException(3, "%s", "message");
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "message");
  }
}

TEST(ExceptionTest, LongMessageIsCutTo1023Characters) {
  const std::string fits(1023, 'x');
  EXPECT_EQ(VrnException(3, "%s", fits.c_str()).what(), fits);
  EXPECT_EQ(VrnException(3, "%sy", fits.c_str()).what(), fits);
  EXPECT_EQ(by_list(3, "%s%s", fits.c_str(), fits.c_str()).what(), fits);
}

TEST(ExceptionTest, MessageMayBeEmpty) {
  EXPECT_STREQ(VrnException(3, "%s", "").what(), "");
}

TEST(ExceptionTest, NullFormatIsNamed) {
  const char* fmt = nullptr;
  EXPECT_STREQ(by_list(3, fmt, 0).what(), "<NULL>");
}

TEST(ExceptionTest, CopyIsIndependent) {
  errno = EIO;
  auto original = std::make_unique<VrnException>(8, "%s", "message");
  const VrnException copy(*original);
  VrnException assigned(1, "%s", "other");
  assigned = *original;
  original.reset();
  for (const VrnException* e : {&copy, &std::as_const(assigned)}) {
    EXPECT_STREQ(e->what(), "message");
    EXPECT_EQ(e->err(), 8);
    EXPECT_EQ(e->syserr(), EIO);
  }
}

TEST(HandlerTest, DescribesAVrnException) {
  errno = 2;
  EXPECT_EQ(described(VrnException(9, "%s", "x")), "VrnException: Error=9 (errno=2) - x");
}

struct Derived : VrnException {
  Derived() : VrnException(1, "%s", "base") {}
  int err() const override { return -70; }
  int syserr() const override { return -71; }
  const char* what() const noexcept override { return "derived"; }
};

TEST(HandlerTest, AsksTheOperationsOfADerivedException) {
  EXPECT_EQ(described(Derived()), "VrnException: Error=-70 (errno=-71) - derived");
}

struct Counted : VrnException {
  explicit Counted(int* where) : VrnException(4, "%s", "counted"), deleted(where) {}
  ~Counted() override { ++*deleted; }
  int* deleted;
};

TEST(HandlerTest, DescribesAndDeletesAThrownPointer) {
  int deleted = 0;
  errno = 5;
  VrnException* thrown = new Counted(&deleted);
  EXPECT_EQ(described(thrown), "VrnException: Error=4 (errno=5) - counted");
  EXPECT_EQ(deleted, 1);
}

TEST(HandlerTest, NamesANullPointer) {
  EXPECT_EQ(described(static_cast<VrnException*>(nullptr)), "<NULL>");
}

TEST(HandlerTest, NamesTheRunTimeTypeOfAStandardException) {
  EXPECT_EQ(described(std::out_of_range("index")), "St12out_of_range=index");
  EXPECT_EQ(described(std::bad_alloc()), "St9bad_alloc=std::bad_alloc");
}

// A type of one object file only: its type name may carry a '*', which is not part of the text.
TEST(HandlerTest, NamesATypeThatIsPrivateToAFile) {
  struct Private : std::runtime_error {
    Private() : std::runtime_error("text") {}
  };
  const std::string text = described(Private());
  EXPECT_NE(text.front(), '*');
  EXPECT_NE(text.find("Private"), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 5), "=text");
}

TEST(HandlerTest, DescribesAString) {
  EXPECT_EQ(described(std::string("abc")), "string=abc");
}

TEST(HandlerTest, GivesACharacterTextAsItIs) {
  EXPECT_EQ(described(static_cast<const char*>("abc")), "abc");
  EXPECT_EQ(described(static_cast<const char*>("")), "");
}

TEST(HandlerTest, NamesANullText) {
  EXPECT_EQ(described(static_cast<const char*>(nullptr)), "<NULL>");
}

TEST(HandlerTest, DoesNotKnowAnythingElse) {
  EXPECT_EQ(described(42), "Unidentified exception");
  EXPECT_EQ(described(std::string_view("abc")), "Unidentified exception");
}

TEST(HandlerTest, LeavesTheExceptionInFlight) {
  try {
    throw VrnException(3, "%s", "x");
  } catch (const VrnException& e) {
    const std::string once = VrnException::handler();
    EXPECT_EQ(VrnException::handler(), once);
    EXPECT_STREQ(e.what(), "x");
  }
}

}  // namespace
}  // namespace vornfc
