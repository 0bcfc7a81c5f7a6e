#include "zel/core/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

namespace zel {
namespace {

CProps makeProps(std::initializer_list<std::pair<const char*, const char*>> entries) {
  CProps props;
  for (const auto& [key, value] : entries) props.set(String(key), String(value));
  return props;
}

std::string narrow(const String& text) { return text.toStdUTF8(); }

// --- CIOError ---------------------------------------------------------------

TEST(CIOErrorTest, DefaultMessagesExistOnlyForKnownCodes) {
  EXPECT_TRUE(CIOError::getDefaultMessage(14).isEmpty());
  EXPECT_TRUE(CIOError::getDefaultMessage(-1).isEmpty());
  EXPECT_EQ(narrow(CIOError::getDefaultMessage(0)), "Unknown I/O error.");
  EXPECT_EQ(narrow(CIOError::getDefaultMessage(13)), "Error changing the size of a file.");
}

TEST(CIOErrorTest, EndOfStreamBecomesUnexpectedEnd) {
  CIOError error(wxSTREAM_EOF);
  EXPECT_EQ(error.getErrorCode(), 4);
  EXPECT_EQ(narrow(error.getMessage()), "Unexpected end of data.");
  EXPECT_TRUE(error.isError("IO", 4));
  EXPECT_FALSE(error.isError("io", 4));
  EXPECT_FALSE(error.isError("IO", 5));
  EXPECT_FALSE(error.isError("IO ", 4));
}

TEST(CIOErrorTest, StreamErrorsMapToCodes) {
  EXPECT_EQ(CIOError::streamErrorToCode(wxSTREAM_WRITE_ERROR), CIOError::WriteFailed);
  EXPECT_EQ(CIOError::streamErrorToCode(wxSTREAM_READ_ERROR), CIOError::ReadFailed);
  EXPECT_EQ(CIOError::streamErrorToCode(wxSTREAM_NO_ERROR), CIOError::Unknown);
}

TEST(CIOErrorTest, GivenMessageWinsOverDefault) {
  CIOError error(CIOError::SeekFailed, "Cannot seek in pipe.");
  EXPECT_EQ(narrow(error.getMessage()), "Cannot seek in pipe.");
  EXPECT_EQ(error.getErrorCode(), CIOError::SeekFailed);
}

// --- Descriptions -----------------------------------------------------------

TEST(CErrorDescTest, InternalDescListsCodeParamsAndNestedCauses) {
  CError root("Disk failure.", "errno", 5);
  CError middle("Read failed.", "", -1, CProps(), &root);
  CError outer("Cannot open.", "sys", 5,
               makeProps({{"func", "CreateFileW"}, {"action", "CFile::open"}}), &middle);
  EXPECT_EQ(narrow(outer.getInternalDesc()),
            "sys 5, func='CreateFileW', action='CFile::open' "
            "(Read failed. [ (Disk failure. [errno 5])])");
  EXPECT_EQ(narrow(outer.getDesc()),
            "Cannot open. [sys 5, func='CreateFileW', action='CFile::open' "
            "(Read failed. [ (Disk failure. [errno 5])])]");
  EXPECT_EQ(narrow(middle.getInternalDesc()), " (Disk failure. [errno 5])");
}

TEST(CErrorDescTest, ErrorWithoutCodeOrParamsIsItsMessage) {
  CError error("Plain.");
  EXPECT_FALSE(error.hasErrorCode());
  EXPECT_TRUE(error.getInternalDesc().isEmpty());
  EXPECT_EQ(narrow(error.getDesc()), "Plain.");
  EXPECT_STREQ(error.what(), "Plain.");
}

TEST(CErrorDescTest, CodeWithoutDomainAndNegativeCodes) {
  EXPECT_EQ(narrow(CError("m", "", 7).getInternalDesc()), "7");
  EXPECT_EQ(narrow(CError("m", "X", -1).getInternalDesc()), "X -1");
  EXPECT_EQ(narrow(CError("m", "", -1, makeProps({{"k", "v"}})).getInternalDesc()), "k='v'");
}

TEST(CErrorDescTest, TraceLinesAreJoinedAndShownAsParameter) {
  CError error("m");
  error.addTrace("first");
  error.addTrace("second");
  EXPECT_EQ(narrow(error.getTraceListString()), "first\nsecond");
  EXPECT_EQ(narrow(error.getInternalDesc()), "_trace='first\nsecond'");
}

// --- what() -----------------------------------------------------------------

TEST(CErrorWhatTest, IsCachedAndRebuiltOnlyWhenTheErrorChanges) {
  CError error("Message.", "IO", 2);
  const char* first = error.what();
  EXPECT_STREQ(first, "Message. [IO 2]");
  EXPECT_EQ(error.what(), first);

  // Reaching the parameters without changing them keeps the text.
  (void)error.getParams().getCount();
  EXPECT_EQ(error.what(), first);

  error.getParams().set("uri", "file:///x");
  const char* second = error.what();
  EXPECT_STREQ(second, "Message. [IO 2, uri='file:///x']");
  // Texts handed out before stay valid for the life of the error.
  EXPECT_STREQ(first, "Message. [IO 2]");

  error.addTrace("t");
  EXPECT_STREQ(error.what(), "Message. [IO 2, uri='file:///x', _trace='t']");
  error.setCause(CError("Cause."));
  EXPECT_STREQ(error.what(), "Message. [IO 2, uri='file:///x', _trace='t' (Cause.)]");
}

TEST(CErrorWhatTest, UnencodableMessageStillGivesText) {
  // A lone surrogate has no encoding in any 8-bit code page, UTF-8 included.
  const wchar_t text[] = {L'a', L'b', wchar_t(0xD800), L'c', 0};
  CError error{String(text)};
  bool strictFails = false;
  try {
    (void)error.getMessage().toCP();
  } catch (const CUnencodableStringError&) {
    strictFails = true;
  }
  EXPECT_TRUE(strictFails);
  EXPECT_STREQ(error.what(), "ab?c");
}

// getCause is the one overridable step of building a description; a failing
// one stands for anything that throws while what() builds its text.
class CThrowingCauseError : public CError {
 public:
  CThrowingCauseError() : CError("m") {}
  PC<CError> getCause() const override { throw std::runtime_error("broken"); }
};

TEST(CErrorWhatTest, NeverThrows) {
  CThrowingCauseError error;
  EXPECT_STREQ(error.what(), "<exception during CError::what>");
}

// --- Copies, clones and re-throwing -----------------------------------------

TEST(CErrorCloneTest, CloneIsDeep) {
  CError cause("Cause.", "errno", 2);
  CError error("Outer.", "sys", 3, makeProps({{"a", "1"}}), &cause);
  P<CError> copy = error.clone();
  error.getParams().set("a", "changed");
  error.setCause(CError("Other."));
  EXPECT_EQ(narrow(copy->getParams().get("a")), "1");
  ASSERT_TRUE(copy->getCause());
  EXPECT_EQ(narrow(copy->getCause()->getDesc()), "Cause. [errno 2]");

  P<CError> second = copy->clone();
  EXPECT_NE(second->getCause().get(), copy->getCause().get());
  EXPECT_EQ(second->getDesc(), copy->getDesc());
}

TEST(CErrorCloneTest, AssignmentCopiesEverything) {
  CError cause("Cause.");
  CError source("Source.", "X", 1, makeProps({{"k", "v"}}), &cause);
  CError target("Target.");
  const char* before = target.what();
  target = source;
  EXPECT_EQ(target.getDesc(), source.getDesc());
  EXPECT_STREQ(target.what(), "Source. [X 1, k='v' (Cause.)]");
  EXPECT_STREQ(before, "Target.");
}

// Stores the error as P<CError>, throws it again and expects it back as T.
template <class T>
void expectRethrownAs(const T& original) {
  SCOPED_TRACE(typeid(T).name());
  P<CError> stored = original.clone();
  EXPECT_EQ(typeid(*stored), typeid(T));
  bool caught = false;
  try {
    stored->throwClone();
  } catch (const T& error) {
    caught = typeid(error) == typeid(T);
    EXPECT_EQ(error.getDesc(), original.getDesc());
  } catch (...) {
  }
  EXPECT_TRUE(caught);
}

TEST(CErrorCloneTest, ThrowCloneKeepsTheMostDerivedClass) {
  CError cause("Cause.");
  expectRethrownAs(CError("m", "d", 1, CProps(), &cause));
  expectRethrownAs(CIOError(CIOError::ReadFailed, "", CProps(), &cause));
  expectRethrownAs(CFileSystemError(CFileSystemError::ProblemNotFound, cause));
  expectRethrownAs(CBadPathError("C:\\a?"));
  expectRethrownAs(CInvalidArgError("f", "bad"));
  expectRethrownAs(CNotImplementedError("f"));
  expectRethrownAs(CFileCorruptedError("C:\\f"));
  expectRethrownAs(CCastError(nullptr, nullptr));
  expectRethrownAs(CSocketError(10054));
  expectRethrownAs(CStdExceptionError(std::runtime_error("x")));
  expectRethrownAs(CThreadError(wxTHREAD_RUNNING));
  expectRethrownAs(CBadStateError("state"));
  expectRethrownAs(CParseError("parse"));
  expectRethrownAs(CBadCollPositionError());
  expectRethrownAs(CUnencodableStringError());
}

// --- Subclass messages and fields --------------------------------------------

TEST(CErrorSubclassTest, FileSystemErrorCopiesTheErrorAndAddsTheProblem) {
  CError cause("Root.");
  CError sysError("Access is denied.", "sys", 5, makeProps({{"func", "CreateFileW"}}), &cause);
  CFileSystemError error(CFileSystemError::ProblemAccessDenied, sysError);
  EXPECT_TRUE(error.isError("sys", 5));
  EXPECT_EQ(error.getMessage(), sysError.getMessage());
  EXPECT_EQ(narrow(error.getParams().get("func")), "CreateFileW");
  EXPECT_EQ(narrow(error.getParams().get("fileSysProblem")), "5");
  EXPECT_EQ(error.getProblem(), CFileSystemError::ProblemAccessDenied);
  ASSERT_TRUE(error.getCause());
  EXPECT_EQ(narrow(error.getCause()->getMessage()), "Root.");
}

TEST(CErrorSubclassTest, ProblemIsReadBackLeniently) {
  EXPECT_EQ(CFileSystemError::getProblem(CProps()), CFileSystemError::ProblemUnknown);
  EXPECT_EQ(CFileSystemError::getProblem(makeProps({{"fileSysProblem", "x1"}})),
            CFileSystemError::ProblemUnknown);
  EXPECT_EQ(CFileSystemError::getProblem(makeProps({{"fileSysProblem", "-8"}})),
            CFileSystemError::ProblemUnknown);
  EXPECT_EQ(CFileSystemError::getProblem(makeProps({{"fileSysProblem", "99999999999"}})),
            CFileSystemError::ProblemUnknown);
  EXPECT_EQ(int(CFileSystemError::getProblem(makeProps({{"fileSysProblem", "12"}}))), 12);
}

TEST(CErrorSubclassTest, FixedMessages) {
  EXPECT_EQ(narrow(CBadPathError("a|b").getMessage()), "Invalid path: a|b");
  EXPECT_EQ(narrow(CInvalidArgError("CFoo::bar", "negative size").getMessage()),
            "Invalid argument passed to 'CFoo::bar': negative size");
  EXPECT_EQ(narrow(CNotImplementedError("CFoo::bar").getMessage()),
            "The function 'CFoo::bar' is not implemented.");
  EXPECT_EQ(narrow(CFileCorruptedError("C:\\%FILE%.dat").getMessage()),
            "The file 'C:\\%FILE%.dat' is corrupted.");
  EXPECT_EQ(narrow(CFileCorruptedError().getMessage()), "The file is corrupted.");
  EXPECT_TRUE(CFileCorruptedError().isError("IO", CIOError::InvalidData));
}

TEST(CErrorSubclassTest, SocketErrorTexts) {
  CSocketError reset(10054);
  EXPECT_EQ(narrow(reset.getMessage()), "Socket error: connection was closed by peer");
  EXPECT_TRUE(reset.isError("sys", 10054));
  EXPECT_EQ(narrow(CSocketError(10052).getMessage()), "Socket error: connection was reset");
  EXPECT_EQ(narrow(CSocketError(12345).getMessage()), "Socket error: unknown error (12345)");
}

class CCastTarget : public CBase {};

TEST(CErrorSubclassTest, CastErrorMessages) {
  EXPECT_EQ(narrow(CCastError(nullptr, nullptr).getMessage()),
            "Error casting an unspecified object to an unspecified type.");
  EXPECT_EQ(narrow(CCastError(nullptr, &typeid(CCastTarget)).getMessage()),
            "Error casting an unspecified object to type zel::(anonymous namespace)::CCastTarget");

  P<CBase> object = createObject<CCastTarget>();
  const std::string message = narrow(CCastError(object.get(), nullptr).getMessage());
  char address[32];
  std::snprintf(address, sizeof(address), "0x%016llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(object.get())));
  EXPECT_EQ(message, std::string("Error casting object ") + address +
                         " of type zel::(anonymous namespace)::CCastTarget"
                         " to an unspecified type.");

  try {
    throwCastError(object.get(), &typeid(int));
    FAIL() << "throwCastError returned";
  } catch (const CCastError& error) {
    EXPECT_NE(narrow(error.getMessage()).find(" to type int"), std::string::npos);
  }
}

TEST(CErrorSubclassTest, ThreadErrors) {
  CThreadError fromWx(wxTHREAD_NO_RESOURCE);
  EXPECT_TRUE(fromWx.isError("wxThread", wxTHREAD_NO_RESOURCE));
  EXPECT_FALSE(fromWx.getMessage().isEmpty());
  EXPECT_NE(fromWx.getMessage(), CThreadError(wxTHREAD_RUNNING).getMessage());

  CError cause("Cause.");
  CError runError("Run failed.", "IO", 2, makeProps({{"k", "v"}}), &cause);
  CThreadError kept(runError);
  EXPECT_EQ(kept.getDesc(), runError.getDesc());
  EXPECT_TRUE(kept.isError("IO", 2));
}

// --- Standard exceptions ----------------------------------------------------

TEST(CStdExceptionErrorTest, ExceptionToErrorWrapsOrClones) {
  P<CError> wrapped = CStdExceptionError::exceptionToError(std::runtime_error("boom"));
  EXPECT_EQ(typeid(*wrapped), typeid(CStdExceptionError));
  EXPECT_EQ(narrow(wrapped->getMessage()), "boom");
  EXPECT_EQ(narrow(wrapped->getErrorCodeDomain()), "STDEXC");

  P<CError> cloned = CStdExceptionError::exceptionToError(CIOError(CIOError::ReadFailed));
  EXPECT_EQ(typeid(*cloned), typeid(CIOError));
  EXPECT_TRUE(cloned->isError("IO", 2));
}

TEST(CStdExceptionErrorTest, CurrentExceptionIsConverted) {
  auto convert = [](const std::function<void()>& thrower) {
    try {
      thrower();
    } catch (...) {
      return CStdExceptionError::exceptionToError();
    }
    return P<CError>();
  };
  EXPECT_EQ(narrow(convert([] { throw std::logic_error("logic"); })->getMessage()), "logic");
  P<CError> parse = convert([] { throw CParseError("bad"); });
  EXPECT_EQ(typeid(*parse), typeid(CParseError));
  EXPECT_EQ(narrow(convert([] { throw 42; })->getMessage()), "Unknown exception.");
  EXPECT_EQ(narrow(CStdExceptionError::exceptionToError()->getMessage()), "Unknown exception.");
}

// --- System errors ----------------------------------------------------------

#if defined(_WIN32)
const int64 kNotFoundCode = 2;  // ERROR_FILE_NOT_FOUND
#else
const int64 kNotFoundCode = ENOENT;
#endif

TEST(SysErrorTest, PreserveLastSysErrorRestores) {
  setLastSysError(42);
  {
    CPreserveLastSysError preserve;
    EXPECT_EQ(preserve.getSavedCode(), 42);
    setLastSysError(7);
  }
  EXPECT_EQ(getLastSysError(), 42);
}

TEST(SysErrorTest, ThrowSysErrorCarriesFuncActionAndTheLastError) {
  setLastSysError(kNotFoundCode);
  try {
    throwSysError("open", "CFoo::load");
  } catch (const CError& error) {
    EXPECT_EQ(getLastSysError(), kNotFoundCode);
    EXPECT_TRUE(error.isError(CError::sysErrorDomain(), kNotFoundCode));
    EXPECT_EQ(narrow(error.getParams().get("func")), "open");
    EXPECT_EQ(narrow(error.getParams().get("action")), "CFoo::load");
    EXPECT_EQ(error.getMessage(), getSysErrorMessage(kNotFoundCode));
    EXPECT_TRUE(isFileOrFolderNotFoundError(error));
    return;
  }
  FAIL() << "throwSysError returned";
}

TEST(SysErrorTest, MessagesHaveNoTrailingLineBreaks) {
  setLastSysError(3);
  for (int64 code : {kNotFoundCode, int64(123456789), int64(-5)}) {
    const std::string text = narrow(getSysErrorMessage(code));
    ASSERT_FALSE(text.empty()) << code;
    EXPECT_NE(text.back(), '\n');
    EXPECT_NE(text.back(), '\r');
  }
  EXPECT_EQ(getLastSysError(), 3);
}

}  // namespace
}  // namespace zel
