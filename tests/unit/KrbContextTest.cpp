#include "tavrel/KrbContext.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Interpose.h"
#include "LogCapture.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;

TEST(SetKeytab, AnEmptyPathClosesTheEarlierKeytab) {
  KrbContext context;
  ASSERT_TRUE(context.SetKeytab("MEMORY:earlier"));
  LogCapture log;
  CallTrace trace;

  const bool bound = context.SetKeytab("");

  EXPECT_FALSE(bound);
  EXPECT_EQ(context.keytab, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_close"));
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-param SetKeytab: Keytab path is empty"));
}

TEST(Construction, LogsWhyThereIsNoContext) {
  const StandIn broken(calls::krb5_init_context,
                       [](krb5_context*) -> krb5_error_code { return ENOMEM; });
  LogCapture log;

  const KrbContext context;

  EXPECT_EQ(context.context, nullptr);
  EXPECT_THAT(log.Lines(),
              ElementsAre("4 krb-param Init: Error initializing context: Cannot allocate memory"));
}

}  // namespace
}  // namespace tavrel::tests
