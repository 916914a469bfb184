// brivet: fetch, cache and serve JSON Graph data from the command line.
#include <iostream>
#include <string>
#include <vector>

#include "tools/cli/tool.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return brivet::tools::runTool(args, std::cout, std::cerr);
}
