// What libkrb5 takes for granted about a keytab file that it appends to.
#ifndef TAVREL_SRC_KEYTABFILE_H
#define TAVREL_SRC_KEYTABFILE_H

#include <krb5.h>

namespace tavrel {

// Prepares a keytab file for krb5_kt_add_entry(), which finds its place by the lengths that the
// entries state. After an entry that was cut off (a full disk, a crash) that place lies beyond the
// end of the file, and the gap reads as zeros: the cut entry would be whole again, with a key that
// anybody knows. So this removes what is left of such an entry. A file too short for a format
// version, which libkrb5 would refuse for ever, gets one.
//
// It never touches what libkrb5 can read, and libkrb5 reads an entry's fields whatever length the
// entry states. So a file stays as it is if an entry's length is smaller than its fields, or if
// libkrb5 cannot read an entry in its midst (it would not find a key behind that).
//
// Returns 0, also for a keytab that is not a file, does not exist yet, or has another format
// version; KRB5_KT_FORMAT for a file that stays as it is. Do not append unless it is 0.
krb5_error_code MendKeytabFile(krb5_context context, krb5_keytab keytab);

}  // namespace tavrel

#endif
