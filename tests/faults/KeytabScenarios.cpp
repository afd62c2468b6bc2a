// Writing and clearing keys.
#include <filesystem>
#include <fstream>

#include "Scenarios.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel::tests {
namespace {

constexpr char kPassword[] = "New.secret.1";

class KeytabCase : public Case {
 protected:
  void Holds(const std::string& principal, krb5_kvno vno, const std::string& password) {
    AppendKey(world.keytab, {principal, vno, Rc4Key(password)});
    world.secrets.push_back(password);
  }

  void Open() {
    krb_.SetKeytab(world.keytab);
    krb_.SetClientPrincipal(world.principal);
  }

  std::string Foreign() const { return "other$@" + world.far_side.domain; }

  KrbContext krb_;
};

// Into a keytab that is not there yet.
class WriteKeyFirst : public KeytabCase {
 public:
  WriteKeyFirst() {
    world.secrets.emplace_back(kPassword);
    Open();
  }

  std::string Act(std::string* error) override {
    return Keytab(&krb_).WriteKey(kPassword, error) ? "true" : "false";
  }

  std::string Again() override {
    std::string error;
    if (!Keytab(&krb_).WriteKey(kPassword, &error)) return "writing fails, " + error;
    for (const StoredKey& entry : ReadKeytab(world.keytab)) {
      if (entry.principal == world.principal && entry.key == Rc4Key(kPassword)) return "";
    }
    return "the key is not there";
  }

  std::string Password() override { return kPassword; }
};

// Beside the keys of others.
class WriteKeyNew : public WriteKeyFirst {
 public:
  WriteKeyNew() {
    Holds(Foreign(), 3, "Other.1");
    Holds("another$@" + world.far_side.domain, 1, "Other.2");
  }
};

// The current key once more.
class WriteKeySame : public WriteKeyFirst {
 public:
  WriteKeySame() {
    Holds(Foreign(), 3, "Other.1");
    Holds(world.principal, 2, kPassword);
  }
};

// After the password was changed.
class WriteKeyChanged : public WriteKeyFirst {
 public:
  WriteKeyChanged() {
    Holds(world.principal, 1, "Old.1");
    Holds(Foreign(), 3, "Other.1");
    Holds(world.principal, 2, "Old.2");
  }
};

// Behind an entry that was cut off.
class WriteKeyCut : public WriteKeyNew {
 public:
  WriteKeyCut() {
    const auto whole = std::filesystem::file_size(world.keytab);
    Holds(world.principal, 1, "Old.1");
    // Of an entry that has more, libkrb5 leaks what it has read.
    std::filesystem::resize_file(world.keytab, whole + 5);
    world.keytab_is_damaged = true;
  }
};

// Into a file that has nothing in it.
class WriteKeyEmpty : public WriteKeyFirst {
 public:
  WriteKeyEmpty() {
    std::ofstream(world.keytab).flush();
    world.keytab_is_damaged = true;
  }
};

const std::string kAdding = "4 krb-keytab WriteKey: Error adding key to keytab: ";
const Expected kNotAdded = {"false", "<why>", {kAdding + "<why>"}};
const Expected kNotAddedThen = {"false", "", {kAdding}};  // without the message

// The steps of WriteKey; a key that is current already is not added.
Rows WriteRows(bool is_current, const char* transfer = "pread") {
  const auto fails = [](const std::string& call, const std::string& step) -> Row {
    return {call, Expected{"false", "<why>", {"4 krb-keytab WriteKey: " + step + "<why>"}}, {}};
  };
  const Rows rows = {fails("krb5_principal2salt", "Error generating principal salt: "),
                     fails("krb5_c_string_to_key", "Error creating key from password: ")};
  if (is_current) return rows;
  return rows + LookRows(transfer, 1, kNotAdded, kNotAddedThen) +
         Rows{{"krb5_kt_add_entry", kNotAdded, {}}};
}

// The walks before the key is made and after it, through `entries` entries. What cannot be read is
// taken for a keytab without keys, so that a single fault goes unnoticed.
Rows WalkRows(int entries, bool is_current) {
  const auto then = [](const std::string& step) {
    return Expected{"false", "", {"4 krb-keytab WriteKey: " + step}};
  };
  const Expected not_created = then("Error creating key from password: ");
  // The last entry is the one that is looked for, if it is there at all.
  const std::optional<Expected> found = is_current ? std::nullopt : std::optional(kNotAddedThen);

  const auto numbers = [](int first, int last) {
    return "#" + std::to_string(first) + "-" + std::to_string(last);
  };
  const int fetches = entries + 1;
  Rows rows = {{"krb5_kt_start_seq_get#1", {}, not_created},
               {"krb5_kt_start_seq_get#2", {}, kNotAddedThen}};
  if (entries == 0) return rows;
  return rows +
         Rows{{"krb5_kt_next_entry" + numbers(1, fetches), {}, not_created},
              {"krb5_free_keytab_entry_contents" + numbers(1, entries), {}, not_created},
              {"krb5_kt_end_seq_get#1", {}, not_created},
              {"krb5_kt_next_entry" + numbers(fetches + 1, 2 * fetches - 1), {}, kNotAddedThen},
              {"krb5_kt_next_entry" + numbers(2 * fetches, 2 * fetches), {}, found},
              {"krb5_free_keytab_entry_contents" + numbers(2 * entries, 2 * entries), {}, found},
              {"krb5_free_keytab_entry_contents" + numbers(entries + 1, 2 * entries - 1),
               {},
               kNotAddedThen},
              {"krb5_kt_end_seq_get#2", {}, found}};
}

// Keys of three versions, one of them as another principal's neighbour.
class ClearKeys : public KeytabCase {
 public:
  ClearKeys() {
    Holds(world.principal, 1, "Old.1");
    Holds(Foreign(), 3, "Other.1");
    Holds(world.principal, 2, "Old.2");
    Holds(world.principal, 3, "Old.3");
    Open();
  }

  std::string Act(std::string* error) override {
    return Keytab(&krb_).ClearKeys(error) ? "true" : "false";
  }

  std::string Again() override {
    std::string error;
    if (!Keytab(&krb_).ClearKeys(&error)) return "clearing fails, " + error;
    const std::vector<StoredKey> left = ReadKeytab(world.keytab);
    return left.size() == 1 && left[0].principal == Foreign() ? "" : "keys are left";
  }
};

Rows ClearRows() {
  const std::string ending = "4 krb-keytab ClearKeys: Error ending keytab sequence: ";
  const std::string removing = "4 krb-keytab ClearKeys: Error removing keytab entry: ";
  const Expected not_closed = {"false", "", {ending}};
  return {
      {"krb5_kt_start_seq_get",
       Expected{
           "false", "untouched", {"4 krb-keytab ClearKeys: Error starting keytab sequence: <why>"}},
       {}},
      // An entry that cannot be read is taken for the keytab's end.
      {"krb5_kt_next_entry", {}, not_closed},
      {"krb5_free_keytab_entry_contents#1", {}, not_closed},
      {"krb5_free_keytab_entry_contents#2-3", {}, Expected{"false", "", {removing}}},
      {"krb5_free_keytab_entry_contents#4", {}, {}},
      // The keys are gone, which is what was asked for.
      {"krb5_kt_end_seq_get", Expected{"true", "<why>", {ending + "<why>"}}, not_closed},
      {"krb5_kt_remove_entry", Expected{"false", "<why>", {removing + "<why>"}}, {}},
  };
}

}  // namespace

std::vector<Scenario> KeytabScenarios() {
  const Expected done = {"true", "untouched", {}};
  return {
      {"WriteKeyFirst", Make<WriteKeyFirst>, done, kOneMore,
       WriteRows(false, nullptr) + WalkRows(0, false)},
      {"WriteKeyNew", Make<WriteKeyNew>, done, kOneMore, WriteRows(false) + WalkRows(2, false)},
      {"WriteKeySame", Make<WriteKeySame>, done, kUnchanged, WriteRows(true) + WalkRows(2, true)},
      {"WriteKeyChanged", Make<WriteKeyChanged>, done, kOneMore,
       WriteRows(false) + WalkRows(3, false)},
      {"WriteKeyCut", Make<WriteKeyCut>, done, kOneMore,
       WriteRows(false) + Rows{{"ftruncate", kNotAdded, kNotAddedThen}} + WalkRows(2, false)},
      {"WriteKeyEmpty", Make<WriteKeyEmpty>, done, kOneMore,
       WriteRows(false, "pwrite") + WalkRows(0, false)},
      {"ClearKeys", Make<ClearKeys>, done, kRemoved, ClearRows()}};
}

}  // namespace tavrel::tests
