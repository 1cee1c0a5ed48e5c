#include "picture/stack_file.h"

#include <cstdlib>
#include <regex>

namespace {

// The whole number after `key` in `text` (key="N" or key=N), or 0.
int number_after(const std::string& text, const std::string& key) {
  std::smatch found;
  if (!std::regex_search(text, found, std::regex(key + "=\"?([0-9]+)"))) return 0;
  return std::atoi(found[1].str().c_str());
}

}  // namespace

StackOrder stack_order(const OIIO::ImageSpec& first_page) {
  const std::string description = first_page.get_string_attribute("ImageDescription");
  StackOrder order;
  if (description.rfind("ImageJ=", 0) == 0) {
    order.channels = std::max(1, number_after(description, "channels"));  // ImageJ's pages go C, Z, T
  } else if (description.find("<OME") != std::string::npos) {
    order.channels = std::max(1, number_after(description, "SizeC"));
    std::smatch found;
    if (std::regex_search(description, found, std::regex("DimensionOrder=\"XY([CZT]{3})\"")))
      order.channel_fastest = found[1].str().find('C') < found[1].str().find('Z');
  }
  return order;
}

std::string imagej_description(const deconv::Image& stack) {
  const int pages = stack.depth * stack.channels;
  return "ImageJ=1.11a\nimages=" + std::to_string(pages) + "\n" +
         (stack.channels > 1 ? "channels=" + std::to_string(stack.channels) + "\nhyperstack=true\n" : "") +
         "slices=" + std::to_string(stack.depth) + "\n";
}
