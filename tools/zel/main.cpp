// zel: the library's command-line tool.
//
//   zel info                 library version, platform, wxWidgets version, the
//                            current 8-bit code page, and a self-check.
//   zel serve --share NAME=FOLDER ... [--address NAME] [--global]
//                            serves folders to other processes until stopped
//                            (Ctrl+C); a share named NAME is reached as
//                            zel://NAME/...
//   zel fs [--address NAME] COMMAND ARGS
//                            a client of such a server: ls, stat, get, put,
//                            mkdir, rm, mv, df (zel fs help lists them).
//   zel demo                 starts a server process on a temporary folder and
//                            runs a client session against it, timing each step.
#include <cstdio>

#include "tool.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: zel <command> [arguments]\n"
               "\n"
               "commands:\n"
               "  info     library version, platform and a self-check\n"
               "  serve    --share NAME=FOLDER ... [--address NAME] [--global]\n"
               "           serve folders to other processes (Ctrl+C stops)\n"
               "  fs       [--address NAME] ls|stat|get|put|mkdir|rm|mv|df ARGS\n"
               "           use a running server (zel fs help for details)\n"
               "  demo     a server process and a client session against it\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const zel::String command = zel::String::fromCP(argv[1]);
  zeltool::Args args;
  for (int i = 2; i < argc; ++i) args.push_back(zel::String::fromCP(argv[i]));
  if (command == "info") return zeltool::info();
  if (command == "serve") return zeltool::serve(args);
  if (command == "fs") return zeltool::fsClient(args);
  if (command == "demo") return zeltool::demo(args);
  return usage();
}
