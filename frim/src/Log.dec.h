// The log statement. A statement stands where it is written and runs, in
// order: the tag's proxy test (null: nothing), the statement's own condition
// if it has one, the tag's nesting test (a tag with no target fails it), and
// only then a recursion guard, the record with module, source, line and
// thread, the guarded composition of the text, and the commit.
//
//   CORVANTH_LOG(nLog::nBasic::sWarningTag_, "streamsocket", "peer closed " << port);
//   CORVANTH_LOG_AT(nLog::nBasic::sTraceTag_, "PACKMSG", 120);           // position only
//   CORVANTH_ASSERT_AT(count <= 10, "PACKMSG", 54);                      // cited check
//   CORVANTH_LOG_FORMAT(nLog::nBasic::sTraceTag_, "Static", "name", a, b);  // "name\ta\tb\t"
//
// The parts of a text are joined with <<. What goes wrong while composing is
// marked in the text; what goes wrong while committing becomes a plain
// std::exception; fThrow may raise for an assertion whose tag asks for it.
#pragma once

#include <exception>
#include <locale>
#include <ostream>
#include <sstream>
#include <string>

#include "CorvanthExport.h"
#include "FrimCoreError.h"
#include "FrimException.h"
#include "FrimLog.h"
#include "FrimThread.h"
#include "LogBuild.h"
#include "Tag.dec.h"

#ifndef CORVANTH_LOG_MODULE
#define CORVANTH_LOG_MODULE "CorvanthUtil"
#endif

namespace nLog {

// The logger of one statement: collector, wrap, committed flag and stream.
class CORVANTH_EXPORT cStreamCollector {
 public:
  cStreamCollector(iTagControlled const* tag, char const* module, char const* source, long line,
                   tStatementKind kind);
  cStreamCollector(cStreamCollector const&) = delete;
  cStreamCollector& operator=(cStreamCollector const&) = delete;
  virtual ~cStreamCollector();

  std::ostream& fStream() { return mCollector.fStream(); }
  std::string fText() const { return mCollector.fText(); }
  char const* fModule() const { return mModule; }
  long fLine() const { return mCollector.fLine(); }

  // Commits once; a second commit is reported and written again.
  void fCommit();

  // The statement's logger on this thread, or null (reported) outside one.
  static cStreamCollector* hgCurrent() noexcept;
  // True while the logger is being left by an exception before its commit.
  bool fIsExceptionElliminate() const noexcept;

 protected:
  // Last touch on the text before it is committed.
  virtual void vCompleteText() {}

 private:
  long mThread;
  char const* mModule;
  cLoggerCollector mCollector;
  bool mCommitted = false;
  int mUncaughtAtStart;
  cStreamCollector* mPrevious;
  std::locale mLocale;  // the global locale as the statement found it
};

namespace nDeprecated1::nImplementation_sho {

// Collects the text of a formatted statement: name, tab, then each field
// followed by a tab.
class cStream {
 public:
  cStream(char const* module, long line) : mModule(module), mLine(line) {}
  template <class T>
  void fPut(T const& value) {
    nLog::nImplementation_sho::gGuardedInsert(mStream, value, mModule, mLine);
  }
  void fTab() { mStream << '\t'; }
  std::string fGetString() const { return mStream.str(); }

 private:
  char const* mModule;
  long mLine;
  std::ostringstream mStream;
};

}  // namespace nDeprecated1::nImplementation_sho

namespace nImplementation_sho {

// The statement's message composer: every part goes through a guarded inserter.
class cComposer_ : public nException::iMessage {
 public:
  explicit cComposer_(cStreamCollector& logger) : mLogger(logger) {}

  template <class T>
  cComposer_& operator<<(T const& value) {
    gGuardedInsert(mLogger.fStream(), value, mLogger.fModule(), mLogger.fLine());
    return *this;
  }

  // A field that raises is marked and the other fields still go in; the
  // first exception then reaches the statement's outer clause.
  template <class Name, class... Fields>
  cComposer_& fFormatted(Name const& name, Fields const&... fields) {
    nDeprecated1::nImplementation_sho::cStream stream(mLogger.fModule(), mLogger.fLine());
    std::exception_ptr first;
    auto put = [&](auto const& value) {
      try {
        stream.fPut(value);
      } catch (...) {
        if (!first) first = std::current_exception();
      }
    };
    put(name);
    if (nDeprecated1::zFormatStringType_patch::gHasRegular()) {
      ((stream.fTab(), put(fields)), ...);
      if constexpr (sizeof...(Fields) > 0) stream.fTab();
    }
    mLogger.fStream() << stream.fGetString();
    if (first) std::rethrow_exception(first);
    return *this;
  }

  // The outer clause: a part raised; mark it and let the statement go on.
  void fThrew(char const* what) {
    n_debug::nCoreError::gPosition(true, "Log expression parse threw", false, false, mLogger.fModule(),
                                   "LogBuild", static_cast<int>(mLogger.fLine()));
    try {
      if (what != nullptr) {
        mLogger.fStream() << '(' << what << ')';
      } else {
        mLogger.fStream() << "(...)";
      }
    } catch (...) {
    }
  }

 private:
  cStringCoeImpl v_iMessage_nException() const override { return mLogger.fText(); }
  cStreamCollector& mLogger;
};

// What a statement gives back in an expression, and its throwable stand-in
// for tests of a statement's expression.
class cRet_ {};
class cRetThrowable_test : public std::exception {
 public:
  char const* what() const noexcept override { return "cRetThrowable_test"; }
};

}  // namespace nImplementation_sho
}  // namespace nLog

// Kept for callers of the older trace interface; they do nothing here.
class cTraceStringConverter {
 public:
  explicit cTraceStringConverter(char const* text) : mText(text) {}
  operator char const*() const { return mText; }  // NOLINT

 private:
  char const* mText;
};
class CTraceMsg {
 public:
  explicit CTraceMsg(int) {}
};
namespace nTraceAppInit {
inline void gInitialize_() {}
inline bool gIsActive_() { return false; }
inline bool gIsForced_() { return false; }
}  // namespace nTraceAppInit

#define CORVANTH_LOG_STATEMENT_(kind, tagExpr, condition, source, line, compose)                       \
  do {                                                                                                 \
    ::nLog::iTagControlled const* const corvanthTag_ = (tagExpr);                                      \
    if (corvanthTag_ != nullptr && (condition) &&                                                      \
        ::nLog::nImplementation_sho::gRecursionLevelTest(corvanthTag_->fRecursionLimit())) {           \
      ::nLog::nImplementation_sho::cRecursionGuard corvanthGuard_(true);                               \
      ::nLog::cStreamCollector corvanthLogger_(corvanthTag_, CORVANTH_LOG_MODULE, (source), (line),    \
                                               (kind));                                                \
      ::nLog::nImplementation_sho::cComposer_ corvanthComposer_(corvanthLogger_);                      \
      try {                                                                                            \
        compose;                                                                                       \
      } catch (::std::exception const& corvanthError_) {                                               \
        corvanthComposer_.fThrew(corvanthError_.what());                                               \
      } catch (...) {                                                                                  \
        corvanthComposer_.fThrew(nullptr);                                                             \
      }                                                                                                \
      corvanthLogger_.fCommit();                                                                       \
    }                                                                                                  \
  } while (false)

// A statement with an explicit line; the text parts are joined with <<.
#define CORVANTH_LOG_AT(tag, source, line, ...)                                          \
  CORVANTH_LOG_STATEMENT_(::nLog::tStatementKind::eLog, tag, true, source, line,         \
                          (void)(corvanthComposer_ __VA_OPT__(<< __VA_ARGS__)))
#define CORVANTH_LOG(tag, source, ...) CORVANTH_LOG_AT(tag, source, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// The formatted style: a name and fields, each field followed by a tab.
#define CORVANTH_LOG_FORMAT_AT(tag, source, line, ...)                                   \
  CORVANTH_LOG_STATEMENT_(::nLog::tStatementKind::eLog, tag, true, source, line,         \
                          (void)corvanthComposer_.fFormatted(__VA_ARGS__))
#define CORVANTH_LOG_FORMAT(tag, source, ...) CORVANTH_LOG_FORMAT_AT(tag, source, __LINE__, __VA_ARGS__)

// A log assertion: an error statement with no text when the check fails, after
// which the caller carries on as if it had passed. The line is data, so a
// check cited by source and line keeps that number wherever the code moves.
#define CORVANTH_ASSERT_AT(check, source, line)                                                   \
  CORVANTH_LOG_STATEMENT_(::nLog::tStatementKind::eAssertion, ::nLog::nBasic::sErrorTag_, !(check), \
                          source, line, (void)0)
#define CORVANTH_ASSERT(check, source) CORVANTH_ASSERT_AT(check, source, __LINE__)
