#include "Ledger.h"

#include <cstdint>

namespace tavrel::tests {
namespace {

const char* Name(Kind kind) {
  switch (kind) {
    case Kind::kContext: return "a Kerberos context";
    case Kind::kKeytab: return "a keytab";
    case Kind::kCursor: return "a keytab cursor";
    case Kind::kEntry: return "the contents of a keytab entry";
    case Kind::kPrincipal: return "a principal";
    case Kind::kSalt: return "a salt";
    case Kind::kKey: return "a key";
    case Kind::kCreds: return "the contents of credentials";
    case Kind::kAuthContext: return "an auth context";
    case Kind::kTicket: return "a ticket";
    case Kind::kErrorMessage: return "an error message";
    case Kind::kSession: return "an LDAP session";
    case Kind::kMessage: return "an LDAP message";
    case Kind::kValues: return "the values of an attribute";
    case Kind::kBio: return "a BIO";
    case Kind::kDescriptor: return "a file descriptor";
  }
  return "?";
}

const void* AsHandle(int descriptor) {
  return reinterpret_cast<const void*>(static_cast<std::intptr_t>(descriptor) + 1);
}

}  // namespace

Ledger* ledger = nullptr;

void Ledger::Take(Kind kind, const void* handle) {
  ++held_[{kind, handle}];
}

void Ledger::Take(Kind kind, int descriptor) {
  Take(kind, AsHandle(descriptor));
}

void Ledger::Give(Kind kind, const void* handle, const char* call) {
  const auto found = held_.find({kind, handle});
  if (found == held_.end()) {
    complaints_.push_back(std::string(call) + " was given what is not " + Name(kind) +
                          ", or no longer");
    return;
  }
  if (--found->second == 0) held_.erase(found);

  const auto chain = chains_.find(handle);
  if (kind != Kind::kBio || chain == chains_.end()) return;
  const void* const tail = chain->second;
  chains_.erase(chain);
  Give(kind, tail, call);
}

void Ledger::Give(Kind kind, int descriptor, const char* call) {
  Give(kind, AsHandle(descriptor), call);
}

void Ledger::Use(Kind kind, const void* handle, const char* call) {
  if (held_.count({kind, handle}) != 0) return;
  complaints_.push_back(std::string(call) + " used what is not " + Name(kind) + ", or no longer");
}

void Ledger::Chain(const void* head, const void* tail) {
  chains_[head] = tail;
}

std::vector<std::string> Ledger::Complaints() const {
  std::vector<std::string> complaints = complaints_;
  for (const auto& [handle, count] : held_) {
    complaints.push_back(std::string(Name(handle.first)) + " was never given back, " +
                         std::to_string(count) + " times");
  }
  return complaints;
}

}  // namespace tavrel::tests
