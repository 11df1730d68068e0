// HtmlToPdfApp: the converter the add-in starts.
#include <string>
#include <vector>

#include "converter/converter_run.h"

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  return mrwl::converter::RunConverter(arguments);
}
