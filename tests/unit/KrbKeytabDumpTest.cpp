// How entries, principals and credentials look in the log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "GroupedDigits.h"
#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A principal made by hand. Its strings are counted: each is followed by more that is not part of
// it.
class CountedPrincipal {
 public:
  CountedPrincipal(std::string realm, std::vector<std::string> components)
      : strings_(std::move(components)) {
    strings_.push_back(std::move(realm));
    for (std::string& text : strings_) {
      krb5_data data{};
      data.length = static_cast<unsigned int>(text.size());
      text += "NOT PART OF IT";
      data.data = text.data();
      data_.push_back(data);
    }
    principal_.realm = data_.back();
    principal_.data = data_.data();
    principal_.length = static_cast<krb5_int32>(data_.size() - 1);
  }
  CountedPrincipal(const CountedPrincipal&) = delete;
  CountedPrincipal& operator=(const CountedPrincipal&) = delete;

  krb5_principal Get() { return &principal_; }

 private:
  std::vector<std::string> strings_;
  std::vector<krb5_data> data_;
  krb5_principal_data principal_{};
};

krb5_keytab_entry Entry(krb5_principal principal, krb5_kvno vno, krb5_timestamp timestamp) {
  krb5_keytab_entry entry{};
  entry.principal = principal;
  entry.vno = vno;
  entry.timestamp = timestamp;
  return entry;
}

std::string PrintedEntry(const krb5_keytab_entry& entry) {
  LogCapture log;
  KeytabPrinter().Process(entry);
  EXPECT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Records().at(0).file, "KrbKeytab.cpp");
  return log.Lines().at(0);
}

TEST(KeytabPrinter, ShowsTheFirstComponentTheRealmTheVersionAndTheTime) {
  CountedPrincipal machine("CORP.EXAMPLE.COM", {"APPLIANCE$"});

  EXPECT_EQ(PrintedEntry(Entry(machine.Get(), 3, 1700000000)),
            "1 krb-keytab Process: Key: APPLIANCE$@CORP.EXAMPLE.COM version 3 at 1700000000");
}

TEST(KeytabPrinter, LeavesOutFurtherComponents) {
  CountedPrincipal service("CORP.EXAMPLE.COM", {"HTTP", "host", "more"});

  EXPECT_EQ(PrintedEntry(Entry(service.Get(), 1, 1)),
            "1 krb-keytab Process: Key: HTTP@CORP.EXAMPLE.COM version 1 at 1");
}

TEST(KeytabPrinter, ShowsAPrincipalWithoutComponentsAsItsRealm) {
  CountedPrincipal nobody("CORP.EXAMPLE.COM", {});

  EXPECT_EQ(PrintedEntry(Entry(nobody.Get(), 1, 1)),
            "1 krb-keytab Process: Key: @CORP.EXAMPLE.COM version 1 at 1");
}

TEST(KeytabPrinter, SaysThatThereIsNoPrincipal) {
  EXPECT_EQ(PrintedEntry(Entry(nullptr, 2, -5)),
            "1 krb-keytab Process: Key: <no principal> version 2 at -5");
}

TEST(KeytabPrinter, ShowsVersionsWithoutAndTimesWithASign) {
  constexpr krb5_timestamp kEarliest = std::numeric_limits<krb5_timestamp>::min();
  constexpr krb5_timestamp kLatest = std::numeric_limits<krb5_timestamp>::max();
  CountedPrincipal machine("R", {"a"});

  EXPECT_EQ(PrintedEntry(Entry(machine.Get(), 0, 0)),
            "1 krb-keytab Process: Key: a@R version 0 at 0");
  EXPECT_EQ(PrintedEntry(Entry(machine.Get(), 0xffffffff, -1)),
            "1 krb-keytab Process: Key: a@R version 4294967295 at -1");
  EXPECT_EQ(PrintedEntry(Entry(machine.Get(), 0x80000000, kEarliest)),
            "1 krb-keytab Process: Key: a@R version 2147483648 at -2147483648");
  EXPECT_EQ(PrintedEntry(Entry(nullptr, 0xffffffff, kLatest)),
            "1 krb-keytab Process: Key: <no principal> version 4294967295 at 2147483647");
}

TEST(KeytabPrinter, CopiesTheRealmAndTheComponentByLength) {
  CountedPrincipal odd("R\xff", {"\xe4%s"});
  CountedPrincipal empty("", {""});

  EXPECT_EQ(PrintedEntry(Entry(odd.Get(), 1, 1)),
            "1 krb-keytab Process: Key: \xe4%s@R\xff version 1 at 1");
  EXPECT_EQ(PrintedEntry(Entry(empty.Get(), 1, 1)), "1 krb-keytab Process: Key: @ version 1 at 1");
}

TEST(KeytabPrinter, WritesNumbersThatNoLocaleOfTheHostChanges) {
  CountedPrincipal machine("R", {"a"});
  const GroupedDigits digits;

  EXPECT_EQ(PrintedEntry(Entry(machine.Get(), 1000, 1700000000)),
            "1 krb-keytab Process: Key: a@R version 1000 at 1700000000");
}

TEST(Print, LogsEveryEntryInOrderWithTheTimeThatTheKeytabHolds) {
  ScratchKeytab scratch("MEMORY");  // which has the newest entry first, and no times
  ASSERT_TRUE(scratch.keytab.WriteKey("Secret.1", nullptr));
  scratch.Add({"HTTP/host@CORP.EXAMPLE.COM", 2});
  LogCapture log;
  CallTrace trace;

  const krb5_error_code code = scratch.keytab.Print();

  EXPECT_EQ(code, 0);
  EXPECT_THAT(log.Lines(),
              ElementsAre("1 krb-keytab Process: Key: HTTP@CORP.EXAMPLE.COM version 2 at 0",
                          "1 krb-keytab Process: Key: APPLIANCE$@CORP.EXAMPLE.COM version 1 at 0"));
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_start_seq_get", "krb5_kt_next_entry",
                                         "krb5_free_keytab_entry_contents", "krb5_kt_next_entry",
                                         "krb5_free_keytab_entry_contents", "krb5_kt_next_entry",
                                         "krb5_kt_end_seq_get"));
}

TEST(PrintPrincipal, WritesALineForEachComponent) {
  CountedPrincipal service("CORP.EXAMPLE.COM", {"HTTP", "host", ""});
  LogCapture log;

  Keytab::PrintPrincipal(service.Get(), "Label: ");

  EXPECT_THAT(log.Lines(), ElementsAre("1 krb-keytab PrintPrincipal: Label: HTTP@CORP.EXAMPLE.COM",
                                       "1 krb-keytab PrintPrincipal: Label: host@CORP.EXAMPLE.COM",
                                       "1 krb-keytab PrintPrincipal: Label: @CORP.EXAMPLE.COM"));
  EXPECT_EQ(log.Records()[0].file, "KrbKeytab.cpp");
}

TEST(PrintPrincipal, WritesNothingWithoutComponents) {
  CountedPrincipal nobody("CORP.EXAMPLE.COM", {});
  CountedPrincipal negative("CORP.EXAMPLE.COM", {"a"});
  negative.Get()->length = -1;
  LogCapture log;

  Keytab::PrintPrincipal(nobody.Get(), "Label: ");
  Keytab::PrintPrincipal(negative.Get(), "Label: ");
  Keytab::PrintPrincipal(nullptr, "Label: ");

  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(PrintPrincipal, TakesAnyLabel) {
  CountedPrincipal machine("R", {"a"});
  LogCapture log;

  Keytab::PrintPrincipal(machine.Get(), "");
  Keytab::PrintPrincipal(machine.Get(), "100%s ");

  EXPECT_THAT(log.Lines(), ElementsAre("1 krb-keytab PrintPrincipal: a@R",
                                       "1 krb-keytab PrintPrincipal: 100%s a@R"));
}

std::vector<std::string> PrintedCreds(krb5_principal server, krb5_principal client) {
  krb5_creds creds{};
  creds.server = server;
  creds.client = client;
  creds.times.authtime = 1700000000;
  std::string key = "not to be shown.";
  creds.keyblock.length = static_cast<unsigned int>(key.size());
  creds.keyblock.contents = reinterpret_cast<krb5_octet*>(key.data());
  LogCapture log;
  Keytab::PrintCreds(creds);
  return log.Lines();
}

TEST(PrintCreds, ShowsTheServerAndThenTheClient) {
  CountedPrincipal server("R", {"one", "two"});
  CountedPrincipal client("CORP.EXAMPLE.COM", {"APPLIANCE$"});

  EXPECT_THAT(PrintedCreds(server.Get(), client.Get()),
              ElementsAre("1 krb-keytab PrintCreds: serverprincipal: R one two",
                          "1 krb-keytab PrintCreds: clientprincipal: CORP.EXAMPLE.COM APPLIANCE$"));
}

TEST(PrintCreds, ShowsAPrincipalWithoutComponentsAsItsRealm) {
  CountedPrincipal server("R", {});
  CountedPrincipal client("", {});

  EXPECT_THAT(PrintedCreds(server.Get(), client.Get()),
              ElementsAre("1 krb-keytab PrintCreds: serverprincipal: R",
                          "1 krb-keytab PrintCreds: clientprincipal: "));
}

TEST(PrintCreds, ShowsNothingForAPrincipalThatIsNotThere) {
  EXPECT_THAT(PrintedCreds(nullptr, nullptr),
              ElementsAre("1 krb-keytab PrintCreds: serverprincipal: ",
                          "1 krb-keytab PrintCreds: clientprincipal: "));
}

TEST(PrintCreds, CopiesComponentsByLength) {
  CountedPrincipal server("R\xff", {"", " ", "a%s"});
  CountedPrincipal client("R", {"x"});

  EXPECT_THAT(PrintedCreds(server.Get(), client.Get()),
              ElementsAre("1 krb-keytab PrintCreds: serverprincipal: R\xff    a%s",
                          "1 krb-keytab PrintCreds: clientprincipal: R x"));
}

TEST(ADump, EndsForTheLoggerAtAZeroByte) {
  const std::string component("al\0ice", 6);
  CountedPrincipal alice("R", {component});
  CountedPrincipal bob("R", {"bob"});
  LogCapture log;

  Keytab::PrintPrincipal(alice.Get(), "Label: ");
  KeytabPrinter().Process(Entry(alice.Get(), 1, 1));

  EXPECT_THAT(log.Lines(), ElementsAre("1 krb-keytab PrintPrincipal: Label: al",
                                       "1 krb-keytab Process: Key: al"));
  EXPECT_THAT(PrintedCreds(alice.Get(), bob.Get()),
              ElementsAre("1 krb-keytab PrintCreds: serverprincipal: R al",
                          "1 krb-keytab PrintCreds: clientprincipal: R bob"));
}

TEST(ADump, CallsNothingOfTheKerberosLibrary) {
  CountedPrincipal machine("R", {"a", "b"});
  CallTrace trace;

  KeytabPrinter().Process(Entry(machine.Get(), 1, 1));
  Keytab::PrintPrincipal(machine.Get(), "Label: ");
  PrintedCreds(machine.Get(), machine.Get());

  EXPECT_THAT(trace.Names(), IsEmpty());
}

}  // namespace
}  // namespace tavrel::tests
