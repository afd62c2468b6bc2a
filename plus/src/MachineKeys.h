// The machine account's password and the keys that are made of it.
#ifndef TAVREL_PLUS_SRC_MACHINEKEYS_H
#define TAVREL_PLUS_SRC_MACHINEKEYS_H

#include <krb5.h>

#include <cstdint>
#include <vector>

#include "Failure.h"
#include "Kdc.h"
#include "Secret.h"

namespace tavrel::plus {

// A password that no policy of a domain objects to: 64 characters, of three kinds at least. Empty
// when there is no randomness.
Secret MakePassword();

// `password` as `unicodePwd` takes it ([MS-ADTS] 3.1.1.3.1.5.1). It is of ASCII.
Secret EncodePassword(const Secret& password);

// The types of keys that a value of `msDS-SupportedEncryptionTypes` stands for, the strongest
// first.
std::vector<krb5_enctype> TypesOf(std::uint32_t encryption_types);

// Derives a key of each type as the KDC says. Until an account's next password that is with the
// salt of the name that it had at its last: where Active Directory will make other keys of this
// one, `renamed` (may be null) gets them.
Failure DeriveKeys(Kdc& kdc, krb5_principal principal, const Secret& password,
                   const std::vector<krb5_enctype>& types, std::vector<MachineKey>& keys,
                   std::vector<MachineKey>* renamed = nullptr);

// Uses each key for an initial ticket.
Failure Prove(Kdc& kdc, krb5_principal principal, const std::vector<MachineKey>& keys);

}  // namespace tavrel::plus

#endif
