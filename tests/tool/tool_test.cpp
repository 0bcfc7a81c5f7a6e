// The zel tool as its users meet it: the real executable, run as a separate
// process against a real `zel serve` process, its output and exit codes
// checked as a person or a script would read them.
#include <gtest/gtest.h>
#include <wx/dir.h>
#include <wx/ffile.h>
#include <wx/filefn.h>
#include <wx/filename.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "temp_folder.h"
#include "tool_runner.h"
#include "zel/core/version.h"

#ifndef _WIN32
#include <signal.h>
#include <unistd.h>
#endif

namespace zel::tool_test {
namespace {

using Args = std::vector<String>;
using Clock = std::chrono::steady_clock;

std::string uniqueName(const char* what) {
  return std::string(what) + "-" +
         std::to_string(Clock::now().time_since_epoch().count() % 1000000007);
}

void writeFile(const String& path, const std::string& bytes) {
  wxFFile file(path.getWxString(), "wb");
  ASSERT_TRUE(file.IsOpened()) << path.toStdUTF8();
  ASSERT_EQ(file.Write(bytes.data(), bytes.size()), bytes.size());
}

String join(const String& folder, const String& name) {
  return String(wxFileName(folder.getWxString(), name.getWxString()).GetFullPath());
}

// Every name in folder, hidden ones included, sorted.
std::vector<std::string> namesIn(const String& folder) {
  std::vector<std::string> names;
  wxDir dir(folder.getWxString());
  wxString name;
  for (bool more = dir.GetFirst(&name, wxEmptyString, wxDIR_FILES | wxDIR_DIRS | wxDIR_HIDDEN);
       more; more = dir.GetNext(&name)) {
    names.push_back(String(name).toStdUTF8());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Waits up to timeoutMs for condition; its last answer.
template <class Condition>
bool eventually(Condition condition, int timeoutMs = 20000) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (Clock::now() > deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool isWindows() {
#ifdef _WIN32
  return true;
#else
  return false;
#endif
}

// Options every run gets: a state folder of the test's own for the tool's
// log, and (Linux) a UTF-8 locale, as on a user's machine.
CRunOptions toolOptions(const String& stateFolder) {
  CRunOptions options;
  options.env.push_back({"XDG_STATE_HOME", stateFolder.toStdUTF8()});
  options.env.push_back({"LOCALAPPDATA", stateFolder.toStdUTF8()});
  if (!isWindows()) options.env.push_back({"LC_ALL", "C.UTF-8"});
  return options;
}

// A `zel serve` process. It stops when its standard input closes (the way
// that works on both platforms); the signal tests stop theirs with signals.
class CServer {
 public:
  CServer(const Args& shareArgs, const CRunOptions& base, bool untilInputEnds = true)
      : m_address(uniqueName("tooltest")) {
    Args args{"serve", "--address", m_address, "--json"};
    for (const String& share : shareArgs) {
      args.push_back("--share");
      args.push_back(share);
    }
    CRunOptions options = base;
    if (untilInputEnds) {
      args.push_back("--until-stdin-closes");
      options.stdinPipe = true;
    }
    m_run = std::make_unique<CProgramRun>(toolPath(), args, options);
    const bool ready = eventually([&] {
      return m_run->readOutput().find("\"endpoint\"") != std::string::npos || m_run->wait(0) >= 0;
    });
    EXPECT_TRUE(ready && m_run->wait(0) < 0)
        << "the server did not start: " << m_run->readOutput() << m_run->readError();
  }
  const String& getAddress() const { return m_address; }
  CProgramRun& process() { return *m_run; }
  // The socket path or pipe name the server announced.
  std::string getEndpoint() const {
    const std::string out = m_run->readOutput();
    const std::string key = "\"endpoint\": \"";
    const size_t start = out.find(key) + key.size();
    return out.substr(start, out.find('"', start) - start);
  }
  int stop() {
    m_run->closeInput();
    return m_run->wait(20000);
  }

 private:
  String m_address;
  std::unique_ptr<CProgramRun> m_run;
};

// ---------------------------------------------------------------------------
// The command line, with no server anywhere

class ToolCommandLineTest : public ::testing::Test {
 protected:
  CRunResult zel(const Args& args) { return runTool(args, toolOptions(m_state.getPath())); }
  test::CTempFolder m_state;
};

TEST_F(ToolCommandLineTest, HelpAndVersionGoToStandardOutputWithExitCode0) {
  for (const Args& args : {Args{"--help"}, Args{"help"}, Args{"-h"}}) {
    const CRunResult result = zel(args);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out.rfind("usage: zel [--version] [--help] COMMAND [ARGS]\n", 0), 0u)
        << result.out;
    EXPECT_NE(result.out.find("\n  fs "), std::string::npos);
    EXPECT_EQ(result.err, "");
  }
  for (const Args& args : {Args{"fs", "--help"}, Args{"help", "fs"}, Args{"fs", "help"}}) {
    const CRunResult result = zel(args);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out.rfind("usage: zel fs [options] COMMAND [ARGS]\n", 0), 0u) << result.out;
    EXPECT_EQ(result.err, "");
  }
  for (const Args& args :
       {Args{"fs", "ls", "--help"}, Args{"fs", "help", "ls"}, Args{"help", "fs", "ls"}}) {
    const CRunResult result = zel(args);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out.rfind("usage: zel fs ls [options] [REMOTE]\n", 0), 0u) << result.out;
    EXPECT_NE(result.out.find("  -b, --bytes"), std::string::npos);
  }
  const CRunResult serveHelp = zel({"serve", "--help"});
  EXPECT_EQ(serveHelp.code, 0);
  EXPECT_EQ(serveHelp.out.rfind("usage: zel serve [options] --share NAME=FOLDER", 0), 0u);

  const CRunResult version = zel({"--version"});
  EXPECT_EQ(version.code, 0);
  EXPECT_EQ(version.out, std::string("zel ") + ZEL_VERSION_STRING + "\n");
}

TEST_F(ToolCommandLineTest, MistakesAreNamedInOneLineWithExitCode2BeforeAnyConnection) {
  // No server listens at this address: every mistake must be found first.
  const String nobody = uniqueName("nobody");
  const struct {
    Args args;
    const char* err;
  } cases[] = {
      {{"frob"}, "zel: unknown command 'frob'; see 'zel --help'\n"},
      {{"--frob"}, "zel: unknown option '--frob'\n"},
      {{"fs", "--address", nobody, "--bogus", "ls", "/docs"}, "zel fs: unknown option '--bogus'\n"},
      {{"fs", "--address", nobody, "ls", "/docs", "--bogus"}, "zel fs: unknown option '--bogus'\n"},
      {{"fs", "--address", nobody, "ls", "-x", "/docs"}, "zel fs: unknown option '-x'\n"},
      {{"fs", "--address"}, "zel fs: option '--address' needs a value (NAME)\n"},
      {{"fs", "--address", nobody, "frob"},
       "zel fs: unknown command 'frob'; see 'zel fs --help'\n"},
      {{"fs", "--address", nobody}, "zel fs: missing command; see 'zel fs --help'\n"},
      {{"fs", "--address", nobody, "get"}, "zel fs: get: missing operand (REMOTE [LOCAL])\n"},
      {{"fs", "--address", nobody, "stat", "/a", "/b"}, "zel fs: stat: unexpected operand '/b'\n"},
      {{"fs", "--address", nobody, "ls", "docs/x"},
       "zel fs: 'docs/x': not a remote path (write /SHARE/path, or a URI such as "
       "zel://SHARE/path)\n"},
      {{"fs", "--address", nobody, "ls", "zel://docs/100%.txt"},
       "zel fs: 'zel://docs/100%.txt': not a valid URI (to give names as they are, write "
       "/SHARE/path)\n"},
      {{"fs", "--address", nobody, "put", "-", "/docs"},
       "zel fs: '/docs': name the remote file to write standard input to\n"},
      {{"fs", "--address", nobody, "ls", "--json=yes", "/docs"},
       "zel fs: option '--json' takes no value\n"},
      {{"serve", "--address", nobody},
       "zel serve: nothing to serve: give at least one --share NAME=FOLDER\n"},
      {{"serve", "--share", "d"}, "zel serve: --share 'd': expected NAME=FOLDER\n"},
      {{"serve", "--share", "a b=x"},
       "zel serve: --share 'a b=x': a share name holds only letters, digits, '.', '-' and '_'\n"},
      {{"serve", "--share", "d=A", "--share", "D=B"}, "zel serve: share 'D' is given twice\n"},
  };
  for (const auto& c : cases) {
    const CRunResult result = zel(c.args);
    EXPECT_EQ(result.code, 2) << c.err;
    EXPECT_EQ(result.err, c.err);
    EXPECT_EQ(result.out, "");
  }
  const CRunResult bare = zel({});
  EXPECT_EQ(bare.code, 2);
  EXPECT_EQ(bare.out, "");
  EXPECT_EQ(bare.err.rfind("usage: zel ", 0), 0u);

  const CRunResult noServer = zel({"fs", "--address", nobody, "ls", "/docs"});
  EXPECT_EQ(noServer.code, 1);
  EXPECT_EQ(noServer.err.rfind("zel fs: no server at ", 0), 0u) << noServer.err;
  EXPECT_EQ(std::count(noServer.err.begin(), noServer.err.end(), '\n'), 1);
}

TEST_F(ToolCommandLineTest, TheLogGoesToTheUsersStateFolderUnlessTurnedOff) {
  const String log = join(join(join(m_state.getPath(), "zel"), "fs"), "log.xml");
  const String nobody = uniqueName("nobody");
  EXPECT_EQ(zel({"fs", "--address", nobody, "--no-log", "ls", "/docs"}).code, 1);
  EXPECT_FALSE(wxFileExists(log.getWxString()));
  EXPECT_EQ(zel({"fs", "--address", nobody, "ls", "/docs"}).code, 1);
  EXPECT_NE(test::readFileBytes(log).find("<text>All threads stopped.</text>"), std::string::npos);

  const CRunResult info = zel({"info"});
  EXPECT_EQ(info.code, 0);
  EXPECT_NE(info.out.find("self-check         ok\n"), std::string::npos) << info.out;
}

// ---------------------------------------------------------------------------
// Against a server: shares "docs" and "more"

class ToolFsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_root = new test::CTempFolder();
    s_share = join(s_root->getPath(), "share");
    wxFileName::Mkdir(s_share.getWxString(), 0700);
    const String more = join(s_root->getPath(), "more");
    wxFileName::Mkdir(more.getWxString(), 0700);
    s_server = new CServer({"docs=" + s_share, "more=" + more}, toolOptions(s_root->getPath()));
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(s_server->stop(), 0);
    delete s_server;
    delete s_root;
  }

  void SetUp() override {
    static int count = 0;
    m_name = "t" + String::fromInt64(++count);
    m_serverFolder = join(s_share, m_name);
    wxFileName::Mkdir(m_serverFolder.getWxString(), 0700);
  }

  // /docs/tN + suffix, this test's folder on the server.
  String remote(const char* suffix = "") const { return "/docs/" + m_name + suffix; }
  String serverFile(const String& name) const { return join(m_serverFolder, name); }
  const String& local() const { return m_local.getPath(); }

  CRunOptions options() const {
    CRunOptions options = toolOptions(m_state.getPath());
    options.cwd = m_local.getPath();
    return options;
  }
  CRunResult fs(const Args& args, const CRunOptions& runOptions) const {
    Args all{"fs", "--address", s_server->getAddress()};
    all.insert(all.end(), args.begin(), args.end());
    return runTool(all, runOptions);
  }
  CRunResult fs(const Args& args) const { return fs(args, options()); }

  static test::CTempFolder* s_root;
  static String s_share;
  static CServer* s_server;

  String m_name;
  String m_serverFolder;
  test::CTempFolder m_local;
  test::CTempFolder m_state;
};

test::CTempFolder* ToolFsTest::s_root = nullptr;
String ToolFsTest::s_share;
CServer* ToolFsTest::s_server = nullptr;

TEST_F(ToolFsTest, NamesAreTakenAsWrittenWhateverCharactersTheyHold) {
  std::vector<String> names = {L"\u00e9.txt", L"\u00fcn\u00ef.txt", "100%.txt", "a b.txt",
                               "50% off #1.txt"};
  // "?" cannot be part of a Windows file name.
  if (!isWindows()) names.push_back("q?x#y.txt");
  int n = 0;
  for (const String& name : names) {
    SCOPED_TRACE(name.toStdUTF8());
    const std::string content = "content " + std::to_string(++n);
    writeFile(join(local(), "src.txt"), content);
    const CRunResult put = fs({"put", "src.txt", remote("/") + name});
    EXPECT_EQ(put.code, 0) << put.err;
    EXPECT_EQ(put.err, "");
    EXPECT_EQ(test::readFileBytes(serverFile(name)), content);
    const CRunResult get = fs({"get", remote("/") + name, "back.txt"});
    EXPECT_EQ(get.code, 0) << get.err;
    EXPECT_EQ(test::readFileBytes(join(local(), "back.txt")), content);
  }
  // Full URIs stay URIs: escapes are decoded by the URI rules.
  const CRunResult uri = fs({"get", "zel://docs/" + m_name + "/100%25.txt", "-"});
  EXPECT_EQ(uri.code, 0) << uri.err;
  EXPECT_EQ(uri.rawOut, "content 3");
  const CRunResult listing = fs({"ls", remote()});
  EXPECT_EQ(listing.code, 0);
  for (const String& name : names) {
    // Tables are text for the terminal: UTF-8 here (LC_ALL), the ANSI code
    // page on Windows.
    const std::string shown = isWindows() ? std::string(name.toCPSafe().data()) : name.toStdUTF8();
    EXPECT_NE(listing.out.find("  " + shown + "\n"), std::string::npos) << listing.out;
  }
  const CRunResult json = fs({"ls", "--json", remote()});
  for (const String& name : names) {
    EXPECT_NE(json.out.find("\"name\": \"" + name.toStdUTF8() + "\""), std::string::npos)
        << json.out;
  }
  if (!isWindows()) {
    // A client whose locale cannot decode the name still means UTF-8.
    CRunOptions plainC = options();
    plainC.env.push_back({"LC_ALL", "C"});
    writeFile(join(local(), "src.txt"), "c locale");
    EXPECT_EQ(fs({"put", "src.txt", remote("/\xc3\xa7.txt")}, plainC).code, 0);
    EXPECT_EQ(test::readFileBytes(serverFile(L"\u00e7.txt")), "c locale");
  }
}

TEST_F(ToolFsTest, ErrorsAreOneLineWithTheAddressAsWrittenAndNoServerPaths) {
  writeFile(serverFile("a.txt"), "a");
  const String missing = remote("/nosuch");
  const std::string notFound = "zel fs: " + missing.toStdUTF8() + ": no such file or folder\n";
  const std::string serverPath = s_share.toStdUTF8();
  for (const char* command : {"ls", "stat", "get", "rm"}) {
    SCOPED_TRACE(command);
    const CRunResult result = fs({command, missing});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, notFound);
    const CRunResult verbose = fs({"--verbose", command, missing});
    EXPECT_EQ(verbose.code, 1);
    EXPECT_EQ(verbose.err.rfind(notFound + "  ", 0), 0u) << verbose.err;
    EXPECT_EQ(verbose.err.find(serverPath), std::string::npos) << verbose.err;
  }
  const struct {
    Args args;
    std::string err;
  } cases[] = {
      {{"rm", "/docs"}, "zel fs: /docs: a share's root cannot be removed\n"},
      {{"ls", "/nosuchshare/x"}, "zel fs: /nosuchshare/x: no such share\n"},
      {{"mkdir", remote("/a.txt")},
       "zel fs: " + remote("/a.txt").toStdUTF8() + ": a file is in the way of the folder\n"},
      {{"get", remote()}, "zel fs: " + remote().toStdUTF8() + ": is a folder\n"},
      {{"put", "nosuch.txt", remote("/x")}, "zel fs: nosuch.txt: no such file or folder\n"},
      {{"mv", remote("/a.txt"), remote("/a.txt")},
       "zel fs: " + remote("/a.txt").toStdUTF8() + ": already exists\n"},
  };
  for (const auto& c : cases) {
    const CRunResult result = fs(c.args);
    EXPECT_EQ(result.code, 1) << c.err;
    EXPECT_EQ(result.err, c.err);
  }
  // A failed get leaves the local target as it was and nothing beside it.
  writeFile(join(local(), "keep.txt"), "old");
  EXPECT_EQ(fs({"get", missing, "keep.txt"}).code, 1);
  EXPECT_EQ(test::readFileBytes(join(local(), "keep.txt")), "old");
  EXPECT_EQ(namesIn(local()), std::vector<std::string>{"keep.txt"});
  EXPECT_EQ(namesIn(m_serverFolder), std::vector<std::string>{"a.txt"});
}

TEST_F(ToolFsTest, ListingsAreSortedWithHumanSizesAndLinkMarkers) {
  writeFile(serverFile("b.txt"), std::string(1536, 'b'));
  writeFile(serverFile("a.txt"), "abc");
  wxFileName::Mkdir(serverFile("c").getWxString(), 0700);
#ifndef _WIN32
  ASSERT_EQ(::symlink("a.txt", serverFile("l").toStdUTF8().c_str()), 0);
#endif
  const CRunResult listing = fs({"ls", remote()});
  ASSERT_EQ(listing.code, 0) << listing.err;
  std::vector<std::string> lines;
  for (size_t at = 0; at < listing.out.size();) {
    const size_t end = listing.out.find('\n', at);
    lines.push_back(listing.out.substr(at, end - at));
    at = end + 1;
  }
  ASSERT_EQ(lines.size(), isWindows() ? 4u : 5u) << listing.out;
  EXPECT_EQ(lines[0].rfind("MODE ", 0), 0u);
  EXPECT_NE(lines[0].find("SIZE  MODIFIED"), std::string::npos);
  EXPECT_NE(lines[1].find("    3  "), std::string::npos) << lines[1];
  EXPECT_EQ(lines[1].substr(lines[1].size() - 7), "  a.txt");
  EXPECT_NE(lines[2].find(" 1.5K  "), std::string::npos) << lines[2];
  EXPECT_EQ(lines[2].substr(lines[2].size() - 7), "  b.txt");
  EXPECT_EQ(lines[3][0], 'd');
  EXPECT_EQ(lines[3].substr(lines[3].size() - 3), "  c");
  if (!isWindows()) {
    EXPECT_EQ(lines[4][0], 'l');
    EXPECT_EQ(lines[4].substr(lines[4].size() - 12), "  l -> a.txt");
  }
  const CRunResult bytes = fs({"ls", "-b", remote()});
  EXPECT_NE(bytes.out.find(" 1536  "), std::string::npos) << bytes.out;

  const CRunResult shares = fs({"ls", "/"});
  EXPECT_EQ(shares.code, 0) << shares.err;
  const size_t docs = shares.out.find("  docs\n");
  EXPECT_NE(docs, std::string::npos) << shares.out;
  EXPECT_LT(docs, shares.out.find("  more\n"));

  const CRunResult df = fs({"df"});
  EXPECT_EQ(df.code, 0) << df.err;
  EXPECT_EQ(df.out.rfind("PATH   TOTAL", 0), 0u) << df.out;
  EXPECT_NE(df.out.find("USED  FREE  USE%\n/docs "), std::string::npos) << df.out;
  EXPECT_NE(df.out.find("\n/more "), std::string::npos);
  const CRunResult dfJson = fs({"df", "--json", remote()});
  EXPECT_NE(dfJson.out.find("\"total\": "), std::string::npos);
  EXPECT_EQ(dfJson.out.find("null"), std::string::npos) << dfJson.out;
}

TEST_F(ToolFsTest, TheJsonOfEveryDataCommandParses) {
#ifdef _WIN32
  GTEST_SKIP() << "python3 (json.tool) is a Linux program; the Linux lane checks the JSON";
#else
  if (!wxFileExists("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3 here";
  writeFile(serverFile("a.txt"), "abc");
  ASSERT_EQ(::symlink("a.txt", serverFile("l").toStdUTF8().c_str()), 0);
  // Names may hold what JSON must escape, and what must not reach a table.
  writeFile(serverFile("say \"hi\"\n\\.txt"), "");
  const CRunResult table = fs({"ls", remote()});
  EXPECT_NE(table.out.find("  say \"hi\"?\\.txt\n"), std::string::npos) << table.out;
  const std::vector<std::pair<Args, std::string> > commands = {
      {{"ls", "--json", remote()}, "\"name\": \"say \\\"hi\\\"\\n\\\\.txt\""},
      {{"ls", "--json", remote()}, "\"target\": \"a.txt\""},
      {{"ls", "--json", "/"}, "\"name\": \"more\""},
      {{"stat", "--json", remote("/a.txt")}, "\"size\": 3,"},
      {{"df", "--json"}, "\"path\": \"/docs\""},
  };
  std::vector<std::string> outputs;
  for (const auto& [args, expected] : commands) {
    const CRunResult result = fs(args);
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_NE(result.out.find(expected), std::string::npos) << result.out;
    outputs.push_back(result.out);
  }
  const CRunResult info = runTool({"info", "--json"}, options());
  EXPECT_NE(info.out.find("\"selfCheck\": \"ok\""), std::string::npos) << info.out;
  outputs.push_back(info.out);
  outputs.push_back(s_server->process().readOutput());
  for (const std::string& output : outputs) {
    writeFile(join(local(), "out.json"), output);
    CProgramRun check("/usr/bin/python3", {"-m", "json.tool", join(local(), "out.json")});
    EXPECT_EQ(check.wait(60000), 0) << output << check.readError();
  }
#endif
}

TEST_F(ToolFsTest, LocalFilesAreTreatedAsCpTreatsThem) {
  writeFile(join(local(), "src.txt"), "source");
  // Relative paths; a remote folder as target keeps the local name.
  EXPECT_EQ(fs({"put", "src.txt", remote()}).code, 0);
  EXPECT_EQ(test::readFileBytes(serverFile("src.txt")), "source");
  // A local folder as target keeps the remote name.
  wxFileName::Mkdir(join(local(), "sub").getWxString(), 0700);
  EXPECT_EQ(fs({"get", remote("/src.txt"), "sub"}).code, 0);
  EXPECT_EQ(test::readFileBytes(join(join(local(), "sub"), "src.txt")), "source");
  CRunOptions inSub = options();
  inSub.cwd = join(local(), "sub");
  wxRemoveFile(join(inSub.cwd, "src.txt").getWxString());
  EXPECT_EQ(fs({"get", remote("/src.txt")}, inSub).code, 0);
  EXPECT_EQ(test::readFileBytes(join(inSub.cwd, "src.txt")), "source");
  // "-": standard input and output, byte for byte (no line-end changes).
  const std::string lines = "line 1\nline 2\r\n\x1a";
  writeFile(join(local(), "lines.txt"), lines);
  CRunOptions fromFile = options();
  fromFile.stdinFile = join(local(), "lines.txt");
  EXPECT_EQ(fs({"put", "-", remote("/stdin.txt")}, fromFile).code, 0);
  EXPECT_EQ(test::readFileBytes(serverFile("stdin.txt")), lines);
  const CRunResult out = fs({"get", remote("/stdin.txt"), "-"});
  EXPECT_EQ(out.code, 0);
  EXPECT_EQ(out.rawOut, lines);
  // An existing file is replaced once the copy is complete.
  writeFile(join(local(), "old.txt"), "old content, longer");
  EXPECT_EQ(fs({"get", remote("/src.txt"), "old.txt"}).code, 0);
  EXPECT_EQ(test::readFileBytes(join(local(), "old.txt")), "source");
  if (!isWindows()) {
    // A device that cannot seek, as sftp reads one.
    EXPECT_EQ(fs({"put", "/dev/stdin", remote("/dev.txt")}, fromFile).code, 0);
    EXPECT_EQ(test::readFileBytes(serverFile("dev.txt")), lines);
  }
  // mkdir with parents, mv into a folder, rm of a file and an empty folder.
  EXPECT_EQ(fs({"mkdir", remote("/x/y")}).code, 0);
  EXPECT_EQ(fs({"mv", remote("/src.txt"), remote("/x")}).code, 0);
  EXPECT_EQ(test::readFileBytes(join(join(m_serverFolder, "x"), "src.txt")), "source");
  EXPECT_EQ(fs({"rm", remote("/x/src.txt"), remote("/x/y")}).code, 0);
  EXPECT_EQ(namesIn(join(m_serverFolder, "x")), std::vector<std::string>{});
  // Nothing temporary was left on either side.
  for (const std::string& name : namesIn(m_serverFolder))
    EXPECT_EQ(name.find(".part"), std::string::npos);
  for (const std::string& name : namesIn(local())) EXPECT_EQ(name.find(".part"), std::string::npos);
}

#ifndef _WIN32

// A sparse file of size bytes: large without costing disk space.
void makeSparseFile(const String& path, long long size) {
  writeFile(path, "");
  ASSERT_EQ(::truncate(path.toStdUTF8().c_str(), size), 0);
}

bool holdsPartFile(const String& folder) {
  for (const std::string& name : namesIn(folder)) {
    if (name.find(".zel-") != std::string::npos && name.find(".part") != std::string::npos)
      return true;
  }
  return false;
}

#endif

TEST_F(ToolFsTest, InterruptedTransfersLeaveNoFileOnEitherSide) {
#ifdef _WIN32
  GTEST_SKIP() << "Ctrl+C is a console event on Windows; the Linux lane sends SIGINT";
#else
  const long long size = 1ll << 30;
  makeSparseFile(join(local(), "big.bin"), size);
  {
    CProgramRun put(
        toolPath(),
        {"fs", "--address", s_server->getAddress(), "put", "big.bin", remote("/big.bin")},
        options());
    ASSERT_TRUE(eventually([&] { return holdsPartFile(m_serverFolder) || put.wait(0) >= 0; }));
    put.sendSignal(SIGINT);
    EXPECT_EQ(put.wait(60000), 128 + SIGINT) << "the copy ended before it could be interrupted";
    EXPECT_EQ(put.readError(), "zel fs: interrupted by SIGINT\n");
  }
  EXPECT_EQ(namesIn(m_serverFolder), std::vector<std::string>{});

  // Blocked on standard input, a pipe that gives nothing more.
  {
    CRunOptions piped = options();
    piped.stdinPipe = true;
    CProgramRun put(toolPath(),
                    {"fs", "--address", s_server->getAddress(), "put", "-", remote("/piped.bin")},
                    piped);
    put.writeInput(std::string(3 << 20, 'p'));
    ASSERT_TRUE(eventually([&] { return holdsPartFile(m_serverFolder); }));
    put.sendSignal(SIGINT);
    EXPECT_EQ(put.wait(60000), 128 + SIGINT);
  }
  EXPECT_EQ(namesIn(m_serverFolder), std::vector<std::string>{});

  makeSparseFile(serverFile("remote.bin"), size);
  {
    CProgramRun get(
        toolPath(),
        {"fs", "--address", s_server->getAddress(), "get", remote("/remote.bin"), "got.bin"},
        options());
    ASSERT_TRUE(eventually([&] { return holdsPartFile(local()) || get.wait(0) >= 0; }));
    get.sendSignal(SIGINT);
    EXPECT_EQ(get.wait(60000), 128 + SIGINT) << "the copy ended before it could be interrupted";
  }
  EXPECT_EQ(namesIn(local()), std::vector<std::string>{"big.bin"});
#endif
}

TEST_F(ToolFsTest, ProgressIsShownOnATerminalOnly) {
#ifdef _WIN32
  GTEST_SKIP() << "the test's pseudo-terminal is a Linux facility";
#else
  // Input that arrives in pieces of 1 MiB, 1.3 s apart, as a slow pipe
  // would give it.
  auto slowPut = [&](bool terminal, const Args& extra, const char* name, int pieces) {
    CRunOptions piped = options();
    piped.stdinPipe = true;
    piped.stderrTerminal = terminal;
    Args args{"fs", "--address", s_server->getAddress()};
    args.insert(args.end(), extra.begin(), extra.end());
    args.insert(args.end(), {"put", "-", remote("/") + name});
    CProgramRun put(toolPath(), args, piped);
    for (int piece = 0; piece < pieces; ++piece) {
      if (piece > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1300));
      put.writeInput(std::string(1 << 20, 's'));
    }
    put.closeInput();
    EXPECT_EQ(put.wait(60000), 0);
    return put.readError();
  };
  // Drawn once the copy has run a second, then at each piece; the last
  // line has the time taken.
  const std::string shown = slowPut(true, {}, "a.bin", 3);
  EXPECT_EQ(shown.find("\r1.0M  "), std::string::npos) << shown;
  EXPECT_NE(shown.find("\r2.0M  "), std::string::npos) << shown;
  EXPECT_NE(shown.find("\r3.0M  "), std::string::npos) << shown;
  EXPECT_NE(shown.find("/s  0:0"), std::string::npos) << shown;
  EXPECT_EQ(slowPut(false, {}, "b.bin", 2), "");
  EXPECT_EQ(slowPut(true, {"-q"}, "c.bin", 2), "");
  EXPECT_EQ(test::readFileBytes(serverFile("c.bin")).size(), 2u << 20);
#endif
}

// ---------------------------------------------------------------------------
// zel serve

class ToolServeTest : public ::testing::Test {
 protected:
  CRunOptions options() const {
    CRunOptions options = toolOptions(m_state.getPath());
    options.cwd = m_folder.getPath();
    return options;
  }
  test::CTempFolder m_folder;
  test::CTempFolder m_state;
};

TEST_F(ToolServeTest, RelativeFoldersAreServedAndMissingOnesRefused) {
  wxFileName::Mkdir(join(m_folder.getPath(), "here").getWxString(), 0700);
  CServer server({"d=here"}, options());
  std::string folder = join(m_folder.getPath(), "here").toStdUTF8();
  for (size_t at = folder.find('\\'); at != std::string::npos; at = folder.find('\\', at + 2)) {
    folder.insert(at, 1, '\\');
  }
  EXPECT_NE(server.process().readOutput().find("\"folder\": \"" + folder + "\""), std::string::npos)
      << server.process().readOutput();
  EXPECT_EQ(server.stop(), 0);

  const CRunResult missing = runTool({"serve", "--share", "d=nosuch"}, options());
  EXPECT_EQ(missing.code, 1);
  EXPECT_EQ(missing.err,
            "zel serve: " + join(m_folder.getPath(), "nosuch").toStdUTF8() + ": not a folder\n");
}

TEST_F(ToolServeTest, SignalsStopTheServerCleanly) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows has no SIGTERM; a server there stops on Ctrl+C or the end of its input";
#else
  for (int signal : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(signal);
    const String shared = join(m_folder.getPath(), "s" + String::fromInt64(signal));
    wxFileName::Mkdir(shared.getWxString(), 0700);
    CServer server({"d=" + shared}, options(), false);
    const std::string socket = server.getEndpoint();
    ASSERT_EQ(::access(socket.c_str(), F_OK), 0) << socket;
    // A client session in the middle of a put.
    CRunOptions piped = options();
    piped.stdinPipe = true;
    CProgramRun client(toolPath(), {"fs", "--address", server.getAddress(), "put", "-", "/d/x.bin"},
                       piped);
    client.writeInput(std::string(1 << 20, 'x'));
    ASSERT_TRUE(eventually([&] { return holdsPartFile(shared); }));

    server.process().sendSignal(signal);
    EXPECT_EQ(server.process().wait(20000), 0);
    EXPECT_NE(::access(socket.c_str(), F_OK), 0) << "the socket file stays";
    EXPECT_NE(server.process().readError().find(std::string("zel serve: stopping (") +
                                                (signal == SIGTERM ? "SIGTERM" : "SIGINT") +
                                                "); closing 1 client session\n"),
              std::string::npos)
        << server.process().readError();
    // The client learns that its server has gone: one line, exit code 1.
    client.writeInput(std::string(2 << 20, 'x'));
    client.closeInput();
    EXPECT_EQ(client.wait(20000), 1);
    EXPECT_EQ(client.readError(), "zel fs: /d/x.bin: connection to the server lost\n");
    EXPECT_FALSE(wxFileExists(join(shared, "x.bin").getWxString()));
  }
#endif
}

TEST_F(ToolServeTest, GlobalAsRootNeedsTheExplicitOptionAndAlwaysWarns) {
#ifdef _WIN32
  GTEST_SKIP() << "root is a Linux notion; Windows checks for an elevated administrator";
#else
  if (::geteuid() != 0) GTEST_SKIP() << "not running as root";
  const String address = uniqueName("global");
  const CRunResult refused = runTool(
      {"serve", "--global", "--address", address, "--share", "d=" + m_folder.getPath()}, options());
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.err,
            "zel serve: --global as root would let every local user act as root on the shared "
            "folders; add --all-users-may-act-as-root if that is what you want\n");

  CProgramRun global(toolPath(),
                     {"serve", "--global", "--all-users-may-act-as-root", "--address", address,
                      "--json", "--share", "d=" + m_folder.getPath()},
                     options());
  ASSERT_TRUE(
      eventually([&] { return global.readOutput().find("\"endpoint\"") != std::string::npos; }));
  EXPECT_EQ(global.readError(),
            "zel serve: warning: --global: every user of this machine can read, change and delete "
            "the shared files, with the rights of root\n");
  global.sendSignal(SIGTERM);
  EXPECT_EQ(global.wait(20000), 0);
#endif
}

}  // namespace
}  // namespace zel::tool_test
