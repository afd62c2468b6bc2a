// How the operations on a keytab grow with its length, beside walking it once with the library.

#include <filesystem>
#include <utility>

#include "Appliance.h"
#include "KrbSettings.h"
#include "Race.h"
#include "tavrel/KrbContext.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel::bench {
namespace {

void Walk(KrbContext& krb) {
  krb5_kt_cursor cursor = nullptr;
  if (krb5_kt_start_seq_get(krb.context, krb.keytab, &cursor) != 0) return;
  krb5_keytab_entry entry{};
  while (krb5_kt_next_entry(krb.context, krb.keytab, &entry, &cursor) == 0)
    krb5_free_keytab_entry_contents(krb.context, &entry);
  krb5_kt_end_seq_get(krb.context, krb.keytab, &cursor);
}

// A keytab in which only the last entry is the machine's, next to a copy to start from again.
class LongKeytab {
 public:
  explicit LongKeytab(int entries, int own = 1) : path_(settings_ / "keytab") {
    WriteKeytab(path_, own, entries - own);
    std::filesystem::copy_file(path_, path_ + ".original");
    krb_.SetKeytab("FILE:" + path_);
    krb_.SetClientPrincipal(kMachine);
  }
  void Restore() const {
    std::filesystem::copy_file(path_ + ".original", path_,
                               std::filesystem::copy_options::overwrite_existing);
  }
  KrbContext& Krb() { return krb_; }

  // What fails early is fast: a row with a failed operation is none.
  void Require(bool done) { failed_ |= !done; }
  void Race(benchmark::State& state, std::size_t batch, std::vector<Lane> lanes) {
    bench::Race(state, batch, std::move(lanes));
    if (failed_) state.SkipWithError("an operation failed");
  }

 private:
  tests::KrbSettings settings_;
  std::string path_;
  KrbContext krb_;
  bool failed_ = false;
};

// Short keytabs are walked several times a round.
std::size_t Batch(int entries) {
  return entries >= 1000 ? 1 : entries >= 100 ? 4 : 32;
}

// `operation` leaves the keytab as it is.
template <typename Operation>
void Reading(benchmark::State& state, int entries, Operation operation) {
  LongKeytab keytab(entries);
  keytab.Race(state, Batch(entries),
              {{"ours", [&] { keytab.Require(operation(Keytab(&keytab.Krb()))); }},
               {"walk", [&] { Walk(keytab.Krb()); }}});
}

// The same key again, the usual case, which changes nothing.
void WriteCurrentKey(benchmark::State& state, int entries) {
  LongKeytab keytab(entries);
  const auto write = [&] { keytab.Require(Keytab(&keytab.Krb()).WriteKey("Secret.1", nullptr)); };
  write();
  keytab.Race(state, Batch(entries), {{"ours", write}, {"walk", [&] { Walk(keytab.Krb()); }}});
}

void WriteNewKey(benchmark::State& state, int entries) {
  LongKeytab keytab(entries);
  KrbContext& krb = keytab.Krb();
  std::string bytes = MachineKey();
  krb5_keytab_entry entry{};
  entry.principal = krb.client_principal;
  entry.vno = 2;
  entry.key.enctype = ENCTYPE_ARCFOUR_HMAC;
  entry.key.length = static_cast<unsigned int>(bytes.size());
  entry.key.contents = reinterpret_cast<krb5_octet*>(bytes.data());
  Lane ours("ours", [&] { keytab.Require(Keytab(&krb).WriteKey("Secret.1", nullptr)); });
  Lane add("add_entry",
           [&] { keytab.Require(krb5_kt_add_entry(krb.context, krb.keytab, &entry) == 0); });
  Lane walk("walk", [&] { Walk(krb); });
  const auto restore = [&](std::size_t) { keytab.Restore(); };
  keytab.Race(state, 1, {ours.Before(restore), add.Before(restore), walk.Before(restore)});
}

// All entries are the machine's.
void Clear(benchmark::State& state, int entries) {
  LongKeytab keytab(entries, entries);
  KrbContext& krb = keytab.Krb();
  Lane ours("ours", [&] { keytab.Require(Keytab(&krb).ClearKeys(nullptr)); });
  Lane remove("remove_entry", [&] {
    std::vector<krb5_keytab_entry> entries_read;
    krb5_kt_cursor cursor = nullptr;
    if (krb5_kt_start_seq_get(krb.context, krb.keytab, &cursor) != 0) return;
    krb5_keytab_entry entry{};
    while (krb5_kt_next_entry(krb.context, krb.keytab, &entry, &cursor) == 0)
      entries_read.push_back(entry);
    krb5_kt_end_seq_get(krb.context, krb.keytab, &cursor);
    for (krb5_keytab_entry& read : entries_read) {
      krb5_kt_remove_entry(krb.context, krb.keytab, &read);
      krb5_free_keytab_entry_contents(krb.context, &read);
    }
  });
  Lane walk("walk", [&] { Walk(krb); });
  const auto restore = [&](std::size_t) { keytab.Restore(); };
  keytab.Race(state, 1, {ours.Before(restore), remove.Before(restore), walk.Before(restore)});
}

template <typename Function>
benchmark::internal::Benchmark* Add(const std::string& name, int entries, Function function) {
  return benchmark::RegisterBenchmark(
             ("Keytab/" + name + "/entries:" + std::to_string(entries)).c_str(), function)
      ->UseManualTime();
}

const bool registered = [] {
  for (const int entries : {1, 10, 100, 1000, 10000}) {
    const auto reading = [entries](const char* name, auto operation) {
      Add(name, entries, [=](benchmark::State& state) { Reading(state, entries, operation); });
    };
    reading("HasKey", [](const Keytab& keytab) { return keytab.HasKey(); });
    reading("GetNextClientVno", [](Keytab keytab) { return keytab.GetNextClientVno() == 2; });
    reading("Print", [](Keytab keytab) { return keytab.Print() == 0; });
    Add("WriteKey-current", entries,
        [=](benchmark::State& state) { WriteCurrentKey(state, entries); });
    Add("WriteKey-new", entries, [=](benchmark::State& state) { WriteNewKey(state, entries); });
    // The library looks every removed entry up from the start, so time grows with the square.
    auto* const clear =
        Add("ClearKeys", entries, [=](benchmark::State& state) { Clear(state, entries); });
    if (entries >= 10000) clear->Iterations(1)->Repetitions(1);
  }
  return true;
}();

}  // namespace
}  // namespace tavrel::bench
