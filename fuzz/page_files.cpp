// The page of `korvane serve`, in place of the files that the program has built in.

#include "serve/site.h"

namespace korvane_tool {

const std::vector<PageFile>& PageFiles() {
  static const std::vector<PageFile> files = {{"/", "text/html", nullptr, 0}};
  return files;
}

}  // namespace korvane_tool
