// What is done under faults, and what is expected of it.
#ifndef TAVREL_TESTS_FAULTS_SCENARIO_H
#define TAVREL_TESTS_FAULTS_SCENARIO_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FarSide.h"

namespace tavrel::tests {

// What one run of a scenario works with: a domain and a keytab that no other run has seen.
struct World {
  World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  ~World();

  std::string domain;  // as the caller gives it, in lower case
  FarSide far_side;
  std::string account;               // the machine's, without "$"
  std::string dn;                    // of its object
  std::string principal;             // the machine's
  std::string keytab;                // path
  bool keytab_is_damaged = false;    // and may be mended
  std::vector<std::string> secrets;  // what must not appear in any record
};

// One run of a scenario. The constructor prepares, without faults; all else is told by overriding.
class Case {
 public:
  Case() = default;
  Case(const Case&) = delete;
  Case& operator=(const Case&) = delete;
  virtual ~Case() = default;

  // What the scenario is about. Returns its result as text.
  virtual std::string Act(std::string* error) = 0;

  // Does the same once more, without faults, with the same object. Returns what is wrong, or
  // nothing.
  virtual std::string Again() = 0;

  // The password whose key the keytab may gain; empty when it may gain none.
  virtual std::string Password() { return ""; }

  World world;
};

// The result of what throws it. Nothing else may be thrown.
inline constexpr char kBadAlloc[] = "std::bad_alloc";

// What a run ends with; nothing: nobody takes notice, all is as without a fault. The texts of a
// failure are the unit tier's: here it is told, and no more.
using Result = std::optional<std::string>;

struct Row {
  // Which call failed, see Injector.h: "open"; of several "open#2" or "open#2-4". May be followed
  // by a blank and the failure's name.
  std::string call;
  Result once;
  Result then;  // when all later calls fail as well; nothing: as `once`
};

// What may become of a keytab.
inline constexpr char kUnchanged[] = "unchanged";
inline constexpr char kOneMore[] = "what it was, and one key more";
inline constexpr char kMended[] = "mended, with the keys that it had";
inline constexpr char kRemoved[] = "what it was without the first keys of the machine";

struct Scenario {
  const char* name;
  std::unique_ptr<Case> (*make)();
  std::string result;     // undisturbed, as is what becomes of the keytab
  const char* keytab;     // under faults it may also be unchanged, or gain the key
  std::vector<Row> rows;  // the first that matches counts; those that say more come first
};

// All scenarios.
std::vector<Scenario> RealmScenarios();
std::vector<Scenario> JoinScenarios();
std::vector<Scenario> KeytabScenarios();
std::vector<Scenario> AuthenticateScenarios();

}  // namespace tavrel::tests

#endif
