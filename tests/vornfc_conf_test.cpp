// The command vornfc-conf, run as a user runs it. VORNFC_CONF is its path.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>

namespace {

// What a process leaves.
struct Outcome {
  int status;
  std::string out, err;
};

bool operator==(const Outcome& a, const Outcome& b) {
  return a.status == b.status && a.out == b.out && a.err == b.err;
}

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "status " << outcome.status << "\n" << outcome.out << "--\n" << outcome.err;
}

Outcome clean(const std::string& out) {
  return {0, out, ""};
}
Outcome faulty(const std::string& out) {
  return {2, out, ""};
}
Outcome failed(const std::string& why) {
  return {2, "", "vornfc-conf: " + why + "\n"};
}

// A directory of its own, in which the command runs.
struct VornfcConfTest : testing::Test {
  VornfcConfTest() {
    char name[] = "/tmp/vornfc_conf.XXXXXX";
    if (mkdtemp(name)) dir = name;
    EXPECT_FALSE(dir.empty());
  }
  ~VornfcConfTest() override { std::filesystem::remove_all(dir); }

  void write(const std::string& name, const std::string& content) {
    std::ofstream(dir / name, std::ios::binary) << content;
  }

  std::string read(const std::string& name) {
    std::ifstream file(dir / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Runs the command with these words, redirections included.
  Outcome run(const std::string& words) { return shell("\"$CONF\" " + words); }

  Outcome shell(const std::string& script) {
    const std::string command = "CONF='" VORNFC_CONF "'; cd " + dir.string() + " && { " + script +
                                "; } </dev/null >.out 2>.err";
    const int ended = std::system(command.c_str());
    return {WIFEXITED(ended) ? WEXITSTATUS(ended) : -1, read(".out"), read(".err")};
  }

  // The findings in a file of this content.
  Outcome check(const std::string& content, const std::string& options = "") {
    write("f", content);
    return run("check " + options + " f");
  }

  std::filesystem::path dir;
};

TEST_F(VornfcConfTest, AFileWithoutFindingsIsPassedInSilence) {
  EXPECT_EQ(check("# comment\n\n[Net]\nport = 80\nhosts = \" a \";b\\;c;;d\n"), clean(""));
  EXPECT_EQ(check("", "--strict"), clean(""));
}

TEST_F(VornfcConfTest, EveryErrorIsReportedInTheLibrarysWords) {
  EXPECT_EQ(check("early = 1\n"
                  "[Net\n"
                  "[Net]\n"
                  "port\n"
                  "port = 80\n"
                  "PORT = 81\n"
                  "[net]\n"
                  "a = b\\\n"
                  "b = x; \"y\n"),
            faulty("f:1: Not in group !\n"
                   "f:2: Invalid group-name brackets [[Net]\n"
                   "f:4: Missing name/value delimiter [port]\n"
                   "f:6: Duplicate PORT item in group Net\n"
                   "f:7: Duplicate net group\n"
                   "f:8: Hanging escape [ b\\]\n"
                   "f:9: Mismatched quotes in value 1 [\"y]\n"));
}

TEST_F(VornfcConfTest, TheFirstErrorIsTheOneOfTheLibrary) {
  write("f", "[Net]\nport\nport\n");
  EXPECT_EQ(run("check f"), faulty("f:2: Missing name/value delimiter [port]\n"
                                   "f:3: Missing name/value delimiter [port]\n"));
  EXPECT_EQ(run("dump f"), failed("VrnConfig f:2 - Missing name/value delimiter [port]"));
  EXPECT_EQ(run("get f Net port"), failed("VrnConfig f:2 - Missing name/value delimiter [port]"));
}

TEST_F(VornfcConfTest, AMissingLastNewlineIsNamed) {
  EXPECT_EQ(check("[g]\nk=1"), faulty("f:2: Line too long, max=1601\n"
                                      "f:2: warning: the newline at the end of the file is "
                                      "missing\n"));
}

TEST_F(VornfcConfTest, ALongLineIsNotTakenForAMissingNewline) {
  const std::string longest = "k=" + std::string(1597, 'v');
  EXPECT_EQ(check("[g]\n" + longest + "\n"), clean(""));
  EXPECT_EQ(check("[g]\n" + longest + "v\nx\n"),
            faulty("f:2: Line too long, max=1601\nf:3: Missing name/value delimiter [x]\n"));
  EXPECT_EQ(check("[g]\n" + longest + "v"), faulty("f:2: Line too long, max=1601\n"));
  EXPECT_EQ(check("[g]\n" + longest), faulty("f:2: Line too long, max=1601\n"
                                             "f:2: warning: the newline at the end of the file is "
                                             "missing\n"));
}

TEST_F(VornfcConfTest, ANulByteIsNotTakenForAMissingNewline) {
  const std::string content("[g]\nk=a\0b\n", 10);
  EXPECT_EQ(check(content), faulty("f:2: NUL byte in line\n"));
}

TEST_F(VornfcConfTest, CrLfIsReportedOnce) {
  EXPECT_EQ(check("[g]\nk=1\r\nl=2\r\n"),
            clean("f:2: warning: the line ends with CR LF (reported once)\n"));
}

TEST_F(VornfcConfTest, AByteOrderMarkIsNamedBesideItsError) {
  EXPECT_EQ(check("\xef\xbb\xbf# comment\n[g]\n\xef\xbb\xbfk=1\n"),
            faulty("f:1: warning: the file begins with a UTF-8 byte order mark, which is read as "
                   "text\nf:1: Not in group !\n"));
}

TEST_F(VornfcConfTest, EmptyNamesAreHardlyMeant) {
  EXPECT_EQ(check("[ ]\n= 1\n"),
            clean("f:1: warning: the group has no name\nf:2: warning: the item has no name\n"));
}

TEST_F(VornfcConfTest, ACommentBehindAValueIsHardlyMeant) {
  EXPECT_EQ(check("[g]\na = 1 # one\nb = #2 a#b #c\nc = \"C # minor\"\nd = 1; # two\n"),
            clean("f:2: warning: \"#\" begins no comment here, it is part of value 0\n"));
}

// What is warned of is what a dump that is read back does not have.
TEST_F(VornfcConfTest, QuotesThatADumpLosesAreWarnedOf) {
  write("f", "[g]\nv = \"\"a\"\"; a\\\"b; \" \"b\" \"; \"\"c \"; \" d\"\"; \"\"\"\n");
  EXPECT_EQ(run("get f g v"), clean("\"a\"\na\"b\n \"b\" \n\"c \n d\"\n\"\n"));
  EXPECT_EQ(
      run("check f"),
      clean("f:2: warning: value 0 begins or ends with a double quote, which a dump loses\n"
            "f:2: warning: value 5 begins or ends with a double quote, which a dump loses\n"));
  EXPECT_EQ(run("dump f > again"), clean(""));
  EXPECT_EQ(run("get again g v"), clean("a\na\"b\n \"b\" \n\"c \n d\"\n"));
}

TEST_F(VornfcConfTest, AQuoteAtOneEndOfAValueIsWarnedOf) {
  EXPECT_EQ(
      check("[g]\na = \"a\"\"\nb = \"\"b\"\n"),
      clean("f:2: warning: value 0 begins or ends with a double quote, which a dump loses\n"
            "f:3: warning: value 0 begins or ends with a double quote, which a dump loses\n"));
  EXPECT_EQ(run("dump f > again"), clean(""));
  EXPECT_EQ(run("check again"), faulty("again:6: Mismatched quotes in value 0 [a\"]\n"
                                       "again:7: Mismatched quotes in value 0 [\"b]\n"));
}

TEST_F(VornfcConfTest, WhatALoggerRejectsIsWarnedOf) {
  EXPECT_EQ(
      check("[Log]\n"
            "LEVEL = high\n"
            "TimePrec = nano\n"
            "CYCLEFREQ = weekly\n"),
      clean("f:2: warning: a logger rejects this: Invalid VrnLog trace level (high)\n"
            "f:3: warning: a logger rejects this: Invalid VrnLog precision (nano)\n"
            "f:4: warning: a logger rejects this: Invalid VrnLog cycle-frequency (weekly)\n"));
}

TEST_F(VornfcConfTest, WhatALoggerAcceptsPassesWithoutARecord) {
  EXPECT_EQ(check("[Log]\nLEVEL = 5\nTIMEPREC = micro\nCYCLEFREQ = Daily\nFILENAME = stderr\n"
                  "TIMEFMT = %H:%M\n"
                  "[Other]\nLEVEL = dbg\nTIMEPREC =\nCYCLEFREQ =\n"),
            clean(""));
}

TEST_F(VornfcConfTest, ALoggerReadsOneValueOfEachSettingAndNoTag) {
  EXPECT_EQ(check("[Log]\nFILENAME = a;b\nTIMEFMT = %H\\;%M\nAPPTAG = me\n"),
            clean("f:2: warning: a logger reads only the first of 2 values\n"
                  "f:4: warning: a logger does not read APPTAG, its tag is given with option "
                  "-L\n"));
}

TEST_F(VornfcConfTest, ALoggerGroupThatOptionLCannotNameIsHardlyMeant) {
  EXPECT_EQ(check("[a:b]\n[c:d]\nLEVEL = 3\nFILENAME = x\n"),
            clean("f:2: warning: option -L cannot name this group, it takes \":\" for the end of "
                  "a name\n"));
}

TEST_F(VornfcConfTest, AGroupWithOneSettingIsALoggersOnlyWhenNamed) {
  const std::string content = "[Trace]\nLEVEL = high\nmode = x\nAPPTAG = y\n";
  EXPECT_EQ(check(content), clean(""));
  EXPECT_EQ(check(content, "--logger other --logger TRACE"),
            clean("f: warning: Config: Logger group=other is missing\n"
                  "f:2: warning: a logger rejects this: Invalid VrnLog trace level (high)\n"
                  "f:4: warning: a logger does not read APPTAG, its tag is given with option "
                  "-L\n"));
}

TEST_F(VornfcConfTest, WarningsCountOnlyWhenStrict) {
  write("warn", "[g]\nk=1\r\n");
  write("good", "[g]\nk=1\n");
  write("bad", "x\n");
  const std::string warning = "warn:2: warning: the line ends with CR LF (reported once)\n";
  EXPECT_EQ(run("check warn good"), clean(warning));
  EXPECT_EQ(run("check --strict warn good"), (Outcome{1, warning, ""}));
  EXPECT_EQ(run("check good --strict"), clean(""));
  EXPECT_EQ(run("check --strict bad warn good"), faulty("bad:1: Not in group !\n" + warning));
  EXPECT_EQ(run("check --strict warn bad"), faulty(warning + "bad:1: Not in group !\n"));
}

TEST_F(VornfcConfTest, FilesThatCannotBeReadAreReportedAmongOthers) {
  write("good", "[g]\nk=1\n");
  EXPECT_EQ(run("check none . good/x good /proc/self/mem"),
            faulty("none: Failed to open file [No such file or directory]\n"
                   ".:1: Read error [Is a directory]\n"
                   "good/x: Failed to open file [Not a directory]\n"
                   "/proc/self/mem:1: Read error [Input/output error]\n"));
  EXPECT_EQ(run("dump none"),
            failed("VrnConfig: Failed to open file [none]: No such file or directory"));
  EXPECT_EQ(run("dump ."), failed("VrnConfig .:1 - Read error [Is a directory]"));
  EXPECT_EQ(run("get '' g k"), failed("VrnConfig: Blank filename supplied !"));
}

TEST_F(VornfcConfTest, DumpPrintsTheLibrarysDump) {
  write("f", "[b]\n[A]\nz = \" x \"; a\\;b\nY\n= 2\n");
  EXPECT_EQ(run("dump f").status, 2);
  write("f", "[b]\n[A]\nz = \" x \"; a\\;b;;c\nY = 2\n");
  EXPECT_EQ(run("dump f"), clean("# Filename = f\n# 2 Groups\n\n[A]\n# 2 Items\nY=2\n"
                                 "z=\" x \"; a\\;b; ; c\n\n[b]\n# 0 Items\n"));
}

TEST_F(VornfcConfTest, GetPrintsAValueOnEachLine) {
  write("f", "[Net]\nhosts = a; \" b \";;d\nnone =\n-k = x\n");
  EXPECT_EQ(run("get f net HOSTS"), clean("a\n b \n\nd\n"));
  EXPECT_EQ(run("get f Net hosts 1"), clean(" b \n"));
  EXPECT_EQ(run("get f Net none"), clean(""));
  EXPECT_EQ(run("get -- f Net -k"), clean("x\n"));
}

TEST_F(VornfcConfTest, WhatIsMissingIsNamedInTheLibrarysWords) {
  write("f", "[Net]\nhosts = a\n");
  EXPECT_EQ(run("get f Web hosts"), failed("VrnConfig: No such group <Web>"));
  EXPECT_EQ(run("get f Net host"), failed("VrnConfig: No such item <Net, host>"));
  EXPECT_EQ(run("get --json f Net hosts 1"), failed("VrnConfig: No such item <Net, hosts, 1>"));
}

TEST_F(VornfcConfTest, FindingsAsJson) {
  EXPECT_EQ(check("[g]\n", "--json"), clean("[]\n"));
  write("\xe9", "[a\"\\\x01]\n[a\"\\\x01]\nk=1\r\n");
  EXPECT_EQ(run("check --json \xe9 none"),
            faulty("[\n"
                   "{\"file\": \"\\u00e9\", \"line\": 2, \"severity\": \"error\", "
                   "\"text\": \"Duplicate a\\\"\\\\\\u0001 group\"},\n"
                   "{\"file\": \"\\u00e9\", \"line\": 3, \"severity\": \"warning\", "
                   "\"text\": \"the line ends with CR LF (reported once)\"},\n"
                   "{\"file\": \"none\", \"line\": null, \"severity\": \"error\", "
                   "\"text\": \"Failed to open file [No such file or directory]\"}\n"
                   "]\n"));
}

TEST_F(VornfcConfTest, ContentAsJsonInTheOrderOfTheFile) {
  write("f", "[b]\nz = 1;;2\nY =\n[A]\n");
  EXPECT_EQ(run("dump --json f"), clean("{\"file\": \"f\", \"groups\": [\n"
                                        "{\"name\": \"b\", \"items\": [\n"
                                        "{\"name\": \"z\", \"values\": [\"1\", \"\", \"2\"]},\n"
                                        "{\"name\": \"Y\", \"values\": []}\n"
                                        "]},\n"
                                        "{\"name\": \"A\", \"items\": []}\n"
                                        "]}\n"));
  EXPECT_EQ(run("get --json f b z"), clean("[\"1\", \"\", \"2\"]\n"));
  EXPECT_EQ(run("get --json f b z 2"), clean("[\"2\"]\n"));
  EXPECT_EQ(run("get --json f b Y"), clean("[]\n"));
  write("f", "");
  EXPECT_EQ(run("dump --json f"), clean("{\"file\": \"f\", \"groups\": []}\n"));
}

// Characters stay as they are; of everything else each byte is escaped.
TEST_F(VornfcConfTest, JsonIsUtf8WhateverTheBytes) {
  const std::string characters =
      "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80"
      "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
  const auto json_of = [this](const std::string& value) {
    write("f", "[g]\nk = <" + value + ">\n");
    return run("get --json f g k");
  };
  EXPECT_EQ(json_of(characters), clean("[\"<" + characters + ">\"]\n"));
  EXPECT_EQ(json_of("\x80\xbf\xff"), clean("[\"<\\u0080\\u00bf\\u00ff>\"]\n"));
  EXPECT_EQ(json_of("\xc1\xbf"), clean("[\"<\\u00c1\\u00bf>\"]\n"));
  EXPECT_EQ(json_of("\xe0\x9f\xbf"), clean("[\"<\\u00e0\\u009f\\u00bf>\"]\n"));
  EXPECT_EQ(json_of("\xed\xa0\x80"), clean("[\"<\\u00ed\\u00a0\\u0080>\"]\n"));
  EXPECT_EQ(json_of("\xf0\x8f\xbf\xbf"), clean("[\"<\\u00f0\\u008f\\u00bf\\u00bf>\"]\n"));
  EXPECT_EQ(json_of("\xf4\x90\x80\x80"), clean("[\"<\\u00f4\\u0090\\u0080\\u0080>\"]\n"));
  EXPECT_EQ(json_of("\xf5\x80\x80\x80"), clean("[\"<\\u00f5\\u0080\\u0080\\u0080>\"]\n"));
  EXPECT_EQ(json_of("\xe2\x82"), clean("[\"<\\u00e2\\u0082>\"]\n"));
  EXPECT_EQ(json_of("\t\x1f"), clean("[\"<\\u0009\\u001f>\"]\n"));
  write("f", "[g]\nk = \xe2\x82\n");
  EXPECT_EQ(run("get --json f g k"), clean("[\"\\u00e2\\u0082\"]\n"));
}

TEST_F(VornfcConfTest, AHyphenIsStandardInput) {
  write("bad", "[g]\nk\n");
  EXPECT_EQ(run("check - <bad"), faulty("-:2: Missing name/value delimiter [k]\n"));
  EXPECT_EQ(run("dump - <bad"),
            failed("VrnConfig /dev/stdin:2 - Missing name/value delimiter [k]"));
  write("good", "[g]\nk=1\n");
  EXPECT_EQ(run("dump - <good"),
            clean("# Filename = /dev/stdin\n# 1 Groups\n\n[g]\n# 1 Items\nk=1\n"));
}

TEST_F(VornfcConfTest, StandardInputMayHaveNoNameOrBeReadInPart) {
  write("f", "taken\n[g]\nk=1\n");
  EXPECT_EQ(shell("{ read taken; \"$CONF\" get - g k; } <f"), clean("1\n"));
  EXPECT_EQ(shell("tail -n +2 f | \"$CONF\" get - g k"), clean("1\n"));

  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  ASSERT_EQ(::write(ends[0], "[g]\nk=2\n", 8), 8);
  close(ends[0]);
  ASSERT_EQ(dup2(ends[1], 9), 9);  // some shells know no greater descriptor
  EXPECT_EQ(run("get - g k <&9"), clean("2\n"));
  close(9);
  close(ends[1]);
}

TEST_F(VornfcConfTest, StandardInputThatCannotBeRead) {
  EXPECT_EQ(run("check - <."), faulty("-:1: Read error [Is a directory]\n"));
  EXPECT_EQ(run("dump - <."), failed("standard input: Is a directory"));
  EXPECT_EQ(run("check - <&-"), faulty("-:1: Read error [Bad file descriptor]\n"));
  EXPECT_EQ(run("get - g k <&-"), failed("standard input: Bad file descriptor"));
}

TEST_F(VornfcConfTest, OutputThatCannotBeWrittenIsAnError) {
  write("good", "[g]\nk=1\n");
  write("warn", "[g]\nk=1\r\n");
  EXPECT_EQ(run("dump good >/dev/full"), failed("standard output: No space left on device"));
  write("long", "[g]\nk=" + std::string(1000, ';') + "1\n");
  EXPECT_EQ(run("get long g k >/dev/full"), failed("standard output: No space left on device"));
  write("longer", "[g]\nk=" + std::string(1500, '\x1f') + "\n");  // six bytes each as JSON
  EXPECT_EQ(run("get --json longer g k >/dev/full"),
            failed("standard output: No space left on device"));
  EXPECT_EQ(run("get good g k >/dev/full"), failed("standard output: No space left on device"));
  EXPECT_EQ(run("check warn >/dev/full"), failed("standard output: No space left on device"));
  EXPECT_EQ(run("check --json good >&-"), failed("standard output: Bad file descriptor"));
  EXPECT_EQ(run("--help >/dev/full"), failed("standard output: No space left on device"));
  EXPECT_EQ(run("check good >/dev/full"), clean(""));
}

TEST_F(VornfcConfTest, HelpAndVersion) {
  const Outcome help = run("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.substr(0, 24), "usage: vornfc-conf check");
  EXPECT_EQ(help.err, "");
  EXPECT_EQ(run("--version"), clean("vornfc-conf " VORNFC_VERSION "\n"));
}

TEST_F(VornfcConfTest, UsageErrors) {
  write("f", "[g]\nk=1\n");
  const std::string hint = " (see \"vornfc-conf --help\")";
  EXPECT_EQ(run(""), failed("no command" + hint));
  EXPECT_EQ(run("count f"), failed("unknown command: count" + hint));
  EXPECT_EQ(run("check"), failed("check: too few arguments" + hint));
  EXPECT_EQ(run("dump f f"), failed("dump: too many arguments" + hint));
  EXPECT_EQ(run("get f g"), failed("get: too few arguments" + hint));
  EXPECT_EQ(run("get f g k 0 1"), failed("get: too many arguments" + hint));
  EXPECT_EQ(run("dump --strict f"), failed("--strict and --logger are for check" + hint));
  EXPECT_EQ(run("get --logger x f g k"), failed("--strict and --logger are for check" + hint));
  for (const char* index : {"x", "1x", "''", "+1", "' 1'", "4294967296"}) {
    const Outcome outcome = run(std::string("get f g k ") + index);
    EXPECT_EQ(outcome.status, 2) << index;
    EXPECT_EQ(outcome.err.substr(0, 36), "vornfc-conf: INDEX is not a number: ") << index;
  }
}

TEST_F(VornfcConfTest, UnknownOptionsAreNamed) {
  const std::string hint = "\nvornfc-conf: bad command line (see \"vornfc-conf --help\")";
  EXPECT_EQ(run("check --nope f"), failed("unrecognized option '--nope'" + hint));
  EXPECT_EQ(run("check -x f"), failed("invalid option -- 'x'" + hint));
  EXPECT_EQ(run("check f --logger"), failed("option '--logger' requires an argument" + hint));
}

}  // namespace
