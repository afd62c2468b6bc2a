#include "Controller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace tavrel::plus::tests {
namespace {

using testing::ElementsAre;

std::vector<std::string> Names(const std::vector<ServiceRecord>& records) {
  std::vector<std::string> names;
  for (const ServiceRecord& record : records)
    names.push_back(record.controller.name);
  return names;
}

TEST(Arrange, PutsTheLowestPriorityFirst) {
  std::vector<ServiceRecord> records = {
      {20, 0, {"c", 389}}, {0, 0, {"a", 389}}, {10, 0, {"b", 389}}};

  Arrange(records, [](std::uint32_t) { return 0; });

  EXPECT_THAT(Names(records), ElementsAre("a", "b", "c"));
}

TEST(Arrange, DrawsByWeightAmongEquals) {
  std::mt19937 generator(1);
  std::map<std::string, int> first;
  for (int i = 0; i < 1000; ++i) {
    std::vector<ServiceRecord> records = {
        {0, 75, {"heavy", 389}}, {0, 25, {"light", 389}}, {0, 0, {"hardly", 389}}};
    Arrange(records, [&](std::uint32_t most) {
      return std::uniform_int_distribution<std::uint32_t>(0, most)(generator);
    });
    ++first[records.front().controller.name];
  }

  EXPECT_NEAR(first["heavy"], 750, 60);
  EXPECT_NEAR(first["light"], 250, 60);
  EXPECT_LT(first["hardly"], 40);
}

TEST(ParseController, TakesANameAndMaybeAPort) {
  Controller controller;
  EXPECT_TRUE(ParseController("dc1.corp.example.com", controller));
  EXPECT_EQ(controller.name, "dc1.corp.example.com");
  EXPECT_EQ(controller.port, 389);
  EXPECT_TRUE(ParseController("dc1.corp.example.com.:3890", controller));
  EXPECT_EQ(controller.name, "dc1.corp.example.com");
  EXPECT_EQ(controller.port, 3890);
  for (const char* text : {"", ".", ":389", "dc1:", "dc1:0", "dc1:65536", "dc1:x", "ldap://dc1",
                           "dc1 dc2", "dc1,dc2", "dc1/", "dc1\n", "dc1@realm"}) {
    EXPECT_FALSE(ParseController(text, controller)) << text;
  }
}

}  // namespace
}  // namespace tavrel::plus::tests
