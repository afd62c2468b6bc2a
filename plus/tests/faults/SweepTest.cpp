// Every call that a membership's operation makes into another library fails once, and from then on.
// The result says so, the keytab is whole, users are accepted, and repeating the operation ends
// well.
#include <dlfcn.h>
#include <netinet/in.h>
#include <unwind.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "../../../tests/faults/Injector.h"
#include "Calls.h"  // before Interpose.h
#include "GssClient.h"
#include "Interpose.h"
#include "MembershipScenario.h"
#include "tavrel/KrbError.h"

// There when a leak sanitizer is.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::Forget;
using tavrel::tests::GssClient;
using tavrel::tests::Injected;
using tavrel::tests::IsInLibrary;
using tavrel::tests::Lab;
using tavrel::tests::Mode;
using tavrel::tests::Plan;
using tavrel::tests::TheInjected;
using tavrel::tests::Window;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

class Faults : public MembershipScenario {
 public:
  struct Subject {
    std::function<void()> prepare;
    std::function<Result()> act;
    bool is_in_service = false;  // a user has a ticket for the machine
  };

  // Sweeps over the calls of `subject`, one failure and one way to fail after the other. Calls that
  // the library comes to on the same way do the same: of these the first two fail. The short form
  // takes the first failure of every 41st call; TAVREL_FAULTS_PART=2/5 takes the third fifth of the
  // long one.
  void Sweep(const Subject& subject) {
    const bool is_brief = std::getenv("TAVREL_FAULTS_BRIEF") != nullptr;
    int part = 0;
    int parts = is_brief ? 41 : 1;
    const char* const asked = std::getenv("TAVREL_FAULTS_PART");
    if (asked != nullptr) {
      ASSERT_EQ(std::sscanf(asked, "%d/%d", &part, &parts), 2);
    }
    int points = 0;
    int fired = 0;
    int missed = 0;
    for (const Mode mode : {Mode::kOneCall, Mode::kAllLaterCalls, Mode::kOneAllocation}) {
      if (is_brief && mode == Mode::kOneAllocation) break;
      std::map<std::size_t, int> seen;
      int turn = mode == Mode::kOneCall ? 0 : 4;
      for (const std::size_t way : Ways(subject, mode)) {
        const int nth = ++seen[way];
        if (nth > (mode == Mode::kOneCall ? 2 : 1)) continue;
        if (turn++ % parts != part) continue;
        const auto counts = [way] { return Way() == way; };
        Injected injected = Run(subject, {mode, nth, 0, counts});
        if (SeenEnough()) break;
        if (injected.fired == 0) {  // no such call this time: an answer came in other parts
          ++missed;
          continue;
        }
        ++points;
        ++fired;
        const std::size_t failures =
            injected.first && !is_brief ? injected.first->row->failures.size() : 1;
        for (std::size_t failure = 1; failure < failures && !SeenEnough(); ++failure)
          fired += Run(subject, {mode, nth, failure, counts}).fired != 0 ? 1 : 0;
      }
    }
    std::printf("%d fault points, %d faults fired, %d missed\n", points, fired, missed);
    EXPECT_GT(points, is_brief ? 2 : 100 / parts);
    if (__lsan_do_recoverable_leak_check != nullptr) {
      EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
    }
  }

  // A machine, a process that uses its keytab, and a user who has just got a ticket. The machine is
  // that of the run before as long as all was well, and the keytab anew when it is long.
  void InService() {
    constexpr std::size_t kLong = 16;
    if (!realm || HasFailure() || Entries().size() > kLong) {
      std::filesystem::remove(keytab);
      EXPECT_THAT(Enrol(), Changes());
      realm.reset(new KrbRealm(Realm()));
      EXPECT_EQ(Join(*realm).status, kSuccess);
    }
    earlier.emplace(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
    EXPECT_EQ(Accepts(), kAlice);
  }

  std::string Accepts() {
    std::vector<char> token = earlier->Token(account + "$@CORP.EXAMPLE.COM");
    return realm->Authenticate(token.data(), static_cast<int>(token.size()));
  }

  // Whether that library has called what is going on.
  static bool IsBeneath(const char* library) {
    struct Search {
      const char* library;
      bool found = false;
    } search{library};
    _Unwind_Backtrace(
        [](_Unwind_Context* frame, void* data) {
          auto& search = *static_cast<Search*>(data);
          Dl_info info{};
          dladdr(reinterpret_cast<void*>(_Unwind_GetIP(frame)), &info);
          const std::string file = info.dli_fname != nullptr ? info.dli_fname : "";
          search.found = search.found || file.find(search.library) != std::string::npos;
          return _URC_NO_REASON;
        },
        &search);
    return search.found;
  }

  std::unique_ptr<KrbRealm> realm;
  std::optional<GssClient> earlier;

 private:
  // The way on which the library came to the call that is being made, as a number.
  static std::size_t Way() {
    struct Walk {
      std::size_t all = 0;  // from the library's innermost function on
      std::size_t way = 0;  // and up to where the library was entered
    } walk;
    _Unwind_Backtrace(
        [](_Unwind_Context* frame, void* data) {
          auto& walk = *static_cast<Walk*>(data);
          const std::uintptr_t address = _Unwind_GetIP(frame);
          const bool is_in_library = IsInLibrary(reinterpret_cast<void*>(address));
          if (walk.all != 0 || is_in_library) walk.all = walk.all * 31 + address;
          if (is_in_library) walk.way = walk.all;
          return _URC_NO_REASON;
        },
        &walk);
    return walk.way;
  }

  // That of each call, in order, when none fails.
  static std::vector<std::size_t> Ways(const Subject& subject, Mode mode) {
    std::vector<std::size_t> ways;
    subject.prepare();
    Forget();
    const Window window({mode, 1, 0, [&] {
                           ways.push_back(Way());
                           return false;
                         }});
    const Result result = subject.act();
    EXPECT_TRUE(result) << testing::PrintToString(result);
    return ways;
  }

  Injected Run(const Subject& subject, const Plan& plan) {
    subject.prepare();
    Forget();
    const std::vector<std::string> before = Entries();
    const std::size_t descriptors = Descriptors();
    std::optional<Result> result;  // none: std::bad_alloc
    try {
      const Window window(plan);
      result = subject.act();
    } catch (const std::bad_alloc&) {
    }
    const Injected injected = TheInjected();
    const std::string fault =
        (injected.first ? injected.first->call + "#" + std::to_string(injected.first->occurrence) +
                              " " + injected.first->failure->name
                        : "allocation " + std::to_string(plan.nth)) +
        (plan.mode == Mode::kAllLaterCalls ? ", and all later calls" : "");
    SCOPED_TRACE(fault);

    if (result && !*result) {
      SCOPED_TRACE(testing::PrintToString(*result));
      EXPECT_NE(result->step, Step::kNone);
      if (injected.first && plan.mode == Mode::kOneCall) CheckCause(injected, *result);
    }
    EXPECT_TRUE(result || plan.mode == Mode::kOneAllocation);
    EXPECT_EQ(Descriptors(), descriptors);
    CheckKeytab();
    if (subject.is_in_service) {
      EXPECT_EQ(Accepts(), kAlice);
    }

    const Result again = subject.act();
    EXPECT_TRUE(again) << testing::PrintToString(again);
    CheckKeytab();
    if (subject.is_in_service) {
      EXPECT_EQ(Accepts(), kAlice);
    }
    EXPECT_FALSE(std::filesystem::exists(keytab + ".new"));
    return injected;
  }

  static bool SeenEnough() {
    constexpr int kMostFailures = 10;
    const auto* const info = testing::UnitTest::GetInstance()->current_test_info();
    return info->result()->total_part_count() > kMostFailures;
  }

  // What a failure means, by its name; what is not here may mean several things.
  static void CheckCause(const Injected& injected, const Result& result) {
    const std::string name = injected.first->failure->name;
    const std::string& call = injected.first->call;
    EXPECT_FALSE(result.text.empty() && call != "krb5_get_error_message");
    const struct {
      const char* start;
      const char* name;
      Cause cause;
    } meanings[] = {
        {"krb5_", "ENOMEM", Cause::kLibrary},
        {"krb5_", "KRB5_KDC_UNREACH", Cause::kUnreachable},
        {"krb5_", "KRB5KDC_ERR_CLIENT_REVOKED", Cause::kCredentialsBarred},
        {"krb5_", "KRB5KRB_AP_ERR_SKEW", Cause::kClockSkew},
        {"krb5_", "KRB5KRB_AP_ERR_MODIFIED", Cause::kNotTrusted},
        {"ldap_", "LDAP_SERVER_DOWN", Cause::kUnreachable},
        {"ldap_", "LDAP_BUSY", Cause::kUnreachable},
        {"ldap_", "LDAP_NO_MEMORY", Cause::kLibrary},
        {"ldap_", "LDAP_INSUFFICIENT_ACCESS", Cause::kAccessDenied},
        {"ldap_", "LDAP_CONSTRAINT_VIOLATION", Cause::kRefused},
        {"ber_", "-1", Cause::kLibrary},
        {"RAND_priv_bytes", "0", Cause::kLibrary},
        {"socket", "EMFILE", Cause::kUnreachable},
        {"connect", "ECONNREFUSED", Cause::kUnreachable},
        {"send", "EPIPE", Cause::kUnreachable},
        {"recv", "ECONNRESET", Cause::kUnreachable},
        {"recv", "end", Cause::kUnreachable},
        {"getaddrinfo", "EAI_AGAIN", Cause::kUnreachable},
        {"open", "EACCES", Cause::kKeytab},
        {"fstat", "EIO", Cause::kKeytab},
        {"fcntl", "ENOLCK", Cause::kKeytab},
        {"flock", "ENOLCK", Cause::kKeytab},
        {"fch", "EPERM", Cause::kKeytab},
        {"posix_fallocate", "ENOSPC", Cause::kKeytab},
        {"pread", "EIO", Cause::kKeytab},
        {"pwrite", "ENOSPC", Cause::kKeytab},
        {"ftruncate", "EIO", Cause::kKeytab},
        {"fsync", "EIO", Cause::kKeytab},
        {"rename", "EACCES", Cause::kKeytab},
    };
    for (const auto& meaning : meanings) {
      if (name == meaning.name && call.rfind(meaning.start, 0) == 0) {
        EXPECT_EQ(ToText(result.cause), std::string(ToText(meaning.cause)));
      }
    }
  }

  // Of each version there are the keys of both types.
  void CheckKeytab() const {
    const std::vector<std::string> list = Entries();
    const std::set<std::string> entries(list.begin(), list.end());
    EXPECT_EQ(entries.size(), list.size()) << "a key is there twice";
    for (const std::string& entry : entries) {
      const std::string other = entry.substr(0, entry.rfind(' ')) +
                                (entry.substr(entry.rfind(' ')) == " 18" ? " 17" : " 18");
      EXPECT_EQ(entries.count(other), 1U) << entry << " is alone";
    }
  }

  static std::size_t Descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }
};

TEST_F(Faults, OfAFirstEnrolment) {
  NameMachine("fresh");
  Sweep({[&] {
           std::filesystem::remove(keytab);
           if (!directory.Read(account).empty()) directory.Delete(account);
         },
         [&] { return Enrol(); }});
}

TEST_F(Faults, OfAnEnrolmentWithASimpleBind) {
  NameMachine("simple");
  options.simple_bind = true;
  options.ca_file = Lab("CA");
  Sweep({[&] {
           std::filesystem::remove(keytab);
           if (!directory.Read(account).empty()) directory.Delete(account);
         },
         [&] { return Enrol(); }});
}

TEST_F(Faults, OfAnEnrolmentAfterThePasswordWasLost) {
  NameMachine("lost");
  Sweep({[&] {
           InService();
           EXPECT_THAT(
               Membership(domain, keytab + ".other", options).Enrol(Administrator(), kLimit),
               Changes());
           std::filesystem::remove(keytab + ".other");
         },
         [&] { return Enrol(); }, true});
}

TEST_F(Faults, OfARotation) {
  NameMachine("rotated");
  Sweep({[&] { InService(); }, [&] { return Member().Rotate(kLimit); }, true});
}

// The password is set by LDAP, and it may have been although nothing of the answer can be read.
TEST_F(Faults, OfAnAnswerThatCannotBeReadCostNoKey) {
  NameMachine("unread");
  InService();
  const std::string may_set =
      "samba-tool dsacl set -H ldap://$LAB_DC_NAME -U "
      "$LAB_ADMIN%$LAB_ADMIN_PASSWORD --objectdn='" +
      Dn() + "' --sddl='(OA;;CR;00299570-246d-11d0-a768-00aa006e0529;;PS)'";
  ASSERT_EQ(std::system((may_set + " >/dev/null").c_str()), 0);
  namespace calls = tavrel::tests::calls;
  {
    const tavrel::tests::StandIn closed(
        calls::connect, [](int socket, const sockaddr* to, socklen_t size) {
          const bool is_password_service =
              reinterpret_cast<const sockaddr_in*>(to)->sin_port == htons(464);
          errno = ECONNREFUSED;
          return is_password_service ? -1 : calls::connect.Real(socket, to, size);
        });
    const tavrel::tests::StandIn unread(calls::ldap_modify_ext_s, [](auto... arguments) {
      calls::ldap_modify_ext_s.Real(arguments...);
      return LDAP_DECODING_ERROR;
    });

    EXPECT_THAT(Member().Rotate(kLimit), Fails(Cause::kUnreachable, Step::kPassword));
  }

  EXPECT_EQ(Accepts(), kAlice);
  EXPECT_THAT(Member().Rotate(kLimit), Changes());
  EXPECT_EQ(Accepts(), kAlice);
}

// An exception that passes through libldap leaves its locks taken, and closing the connection waits
// for them.
TEST_F(Faults, OfAnAllocationInWhatALibraryCallsAreItsFailures) {
  NameMachine("called");
  const std::pair<const char*, Step> places[] = {{"liblber", Step::kLookUp},
                                                 {"libkrb5.so", Step::kSignIn}};
  for (const auto& [library, step] : places) {
    Forget();
    std::optional<Result> result;
    {
      const Window window({Mode::kOneAllocation, 1, 0, [&] { return IsBeneath(library); }});
      result = Enrol();
    }
    EXPECT_THAT(*result, Fails(Cause::kLibrary, step)) << library;
  }

  EXPECT_THAT(Enrol(), Changes());
}

TEST_F(Faults, OfAReadOnlyControllerLeaveItForTheNext) {
  NameMachine("readonly");
  options.controllers = {Lab("DC_NAME"), Lab("DC_NAME")};
  namespace calls = tavrel::tests::calls;
  int added = 0;
  const tavrel::tests::StandIn read_only(calls::ldap_add_ext_s, [&](auto... arguments) {
    return ++added % 2 != 0 ? LDAP_REFERRAL : calls::ldap_add_ext_s.Real(arguments...);
  });

  EXPECT_THAT(Enrol(), Changes());
  EXPECT_EQ(added, 2);
  NameMachine("readonly2");
  options.controllers.pop_back();
  EXPECT_THAT(Enrol(), Fails(Cause::kReferred, Step::kCreate));
}

// Between the change of a password and the question with which salt keys are made of it.
TEST_F(Faults, OfTheControllerAfterARenameCostNoKey) {
  NameMachine("before");
  Scene("precreate BEFORE");
  Scene("password 'BEFORE$' One.Time.Pass.1");
  ChangeDatabase("dn: " + Dn() +
                 "\nchangetype: modify\nreplace: sAMAccountName\nsAMAccountName: AFTER$\n");
  options.account_name = "after";
  options.dns_name = "after.corp.example.com";
  const auto once = Credentials::OneTimePassword("One.Time.Pass.1");
  namespace calls = tavrel::tests::calls;
  {
    const tavrel::tests::StandIn lost(
        calls::ldap_search_ext_s, [](LDAP* handle, const char* base, int scope, auto... arguments) {
          if (scope == LDAP_SCOPE_BASE) return LDAP_SERVER_DOWN;
          return calls::ldap_search_ext_s.Real(handle, base, scope, arguments...);
        });

    EXPECT_THAT(Member().Enrol(once, kLimit), Fails(Cause::kUnreachable, Step::kLookUp));
  }

  EXPECT_THAT(Member().Enrol(once, kLimit), Changes());
  EXPECT_THAT(Enrol(), ChangesNothing());
  EXPECT_EQ(Entries().size(), 2U);
}

TEST_F(Faults, OfLeaving) {
  NameMachine("leaver");
  Sweep({[&] {
           std::filesystem::remove(keytab);
           EXPECT_THAT(Enrol(), Changes());
         },
         [&] { return Member().Leave(Administrator(), Departure::kDelete, kLimit); }});
}

}  // namespace
}  // namespace tavrel::plus::tests
