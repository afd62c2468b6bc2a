// What settings commonly take. Each returns a function for Setting::take, which sets `*to`.
#ifndef TAVREL_TOOLS_COMMON_TAKERS_H
#define TAVREL_TOOLS_COMMON_TAKERS_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tavrel::tools {

using Take = std::function<std::string(const std::string& value)>;

Take TakeText(std::string* to);
// A path from the root on.
Take TakeFile(std::string* to);
Take TakeDuration(std::chrono::seconds* to);
// `yes` or `no`.
Take TakeYesOrNo(bool* to);
// Words, in place of those that are there.
Take TakeList(std::vector<std::string>* to);

}  // namespace tavrel::tools

#endif
