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

// The steps of WriteKey; a key that is current already is not added. The keytab is walked through
// twice, before the key is made and after it. What cannot be read is taken for a keytab without
// keys, so that a single fault goes unnoticed.
Rows WriteRows(const char* transfer = "pread") {
  const Rows rows =
      Each({"krb5_principal2salt", "krb5_c_string_to_key", "krb5_kt_add_entry"}, "false") +
      LookRows(transfer, "false") + Rows{{"krb5_kt_start_seq_get", {}, "false"}};
  if (transfer == nullptr || transfer != std::string("pread")) return rows;
  return rows +
         Each({"krb5_kt_next_entry", "krb5_free_keytab_entry_contents", "krb5_kt_end_seq_get"}, {},
              "false");
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
  return {{"krb5_kt_start_seq_get", "false", {}},
          // An entry that cannot be read is taken for the keytab's end.
          {"krb5_kt_next_entry", {}, "false"},
          {"krb5_free_keytab_entry_contents#1-3", {}, "false"},
          {"krb5_free_keytab_entry_contents", {}, {}},
          {"krb5_kt_end_seq_get", "true", "false"},  // the keys are gone, as was asked for
          {"krb5_kt_remove_entry", "false", {}}};
}

}  // namespace

std::vector<Scenario> KeytabScenarios() {
  // Two entries: the last fetch finds the key that is current, and what follows does not matter.
  const Rows same = Each(
      {"krb5_kt_next_entry#6", "krb5_free_keytab_entry_contents#4", "krb5_kt_end_seq_get#2"}, {});
  const Rows walks = Each({"krb5_kt_start_seq_get", "krb5_kt_next_entry",
                           "krb5_free_keytab_entry_contents", "krb5_kt_end_seq_get"},
                          {}, "false");
  const Rows making = Each({"krb5_principal2salt", "krb5_c_string_to_key"}, "false");
  return {{"WriteKeyFirst", Make<WriteKeyFirst>, "true", kOneMore, WriteRows(nullptr)},
          {"WriteKeyNew", Make<WriteKeyNew>, "true", kOneMore, WriteRows()},
          {"WriteKeySame", Make<WriteKeySame>, "true", kUnchanged, same + walks + making},
          {"WriteKeyChanged", Make<WriteKeyChanged>, "true", kOneMore, WriteRows()},
          {"WriteKeyCut", Make<WriteKeyCut>, "true", kOneMore,
           WriteRows() + Rows{{"ftruncate", "false", {}}}},
          {"WriteKeyEmpty", Make<WriteKeyEmpty>, "true", kOneMore, WriteRows("pwrite")},
          {"ClearKeys", Make<ClearKeys>, "true", kRemoved, ClearRows()}};
}

}  // namespace tavrel::tests
