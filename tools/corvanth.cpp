// corvanth: the library's front for people and scripts.
//
//   corvanth --version        print the library's version
//   corvanth log-demo         write one log record of each tag to standard output
//   corvanth help             this text
//
// Exit codes: 0 success, 1 failure while running, 2 bad usage.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "CorvanthUtil.h"

namespace {

int gUsage(FILE* out) {
  std::fputs(
      "usage: corvanth <command>\n"
      "\n"
      "commands:\n"
      "  --version    print the library's version\n"
      "  log-demo     write one log record of each tag to standard output, one line each:\n"
      "               UTC time, pid, thread id, tag, module, source:line, text (tab-separated)\n"
      "  help         print this text\n"
      "\n"
      "environment:\n"
      "  CORVANTH_LOG       tags or groups that reach the default log target\n"
      "                     (comma list, 'all' or 'none'; default: errors,warnings)\n"
      "  CORVANTH_LOG_FILE  append log records to this file instead of standard error\n",
      out);
  return out == stdout ? 0 : 2;
}

int gLogDemo() {
  // Every tag to standard output, and nothing twice through the default target.
  nLog::gDetachTarget(nLog::gDefaultTarget());
  nLog::cDescriptorTarget out(1);
  if (!nLog::gAttachTarget(out, "all")) return 1;
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "corvanth", "an error record");
  CORVANTH_LOG(nLog::nBasic::sErrorPerformanceTag_, "corvanth", "an error record about performance");
  CORVANTH_LOG(nLog::nBasic::sWarningTag_, "corvanth", "a warning record");
  CORVANTH_LOG(nLog::nBasic::sWarningPerformanceTag_, "corvanth", "a warning record about performance");
  CORVANTH_LOG(nLog::nBasic::sIncompleteTag_, "corvanth", "a path marked incomplete");
  CORVANTH_LOG(nLog::nBasic::sExecutionTag_, "corvanth", "an execution record");
  CORVANTH_LOG(nLog::nBasic::sTraceTag_, "corvanth", "a trace record");
  CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "corvanth", "a trace record with debug information");
  CORVANTH_LOG(nCorvanth::sTraceTag_, "corvanth", "a transport trace record");
  CORVANTH_ASSERT_AT(false, "PACKMSG", 54);
  nLog::gDetachTarget(out);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return gUsage(stderr);
  std::string_view const command = argv[1];
  if (command == "--version" || command == "version") {
    std::printf("corvanth %s (CorvanthUtil %s)\n", CORVANTH_VERSION_TEXT, nCorvanth::gVersion());
    return 0;
  }
  if (command == "help" || command == "--help" || command == "-h") return gUsage(stdout);
  if (command == "log-demo") return gLogDemo();
  std::fprintf(stderr, "corvanth: unknown command '%s'\n\n", argv[1]);
  return gUsage(stderr);
}
