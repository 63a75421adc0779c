// Prints the text of KRErrorException(<file>, <key>, <parameter>). Built
// without a run path, so the library it uses is the one LD_LIBRARY_PATH names.
#include <cstdio>
#include <cstdlib>

#include "KRErrorException.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  std::printf("%s\n", KRErrorException(argv[1], std::atoi(argv[2]), argv[3]).what());
  return 0;
}
