// What libkrb5 takes for granted of a keytab file that it appends to.
#ifndef TAVREL_SRC_KEYTABFILE_H
#define TAVREL_SRC_KEYTABFILE_H

#include <krb5.h>

namespace tavrel {

// Makes a keytab that is a file fit for krb5_kt_add_entry(), which finds its place by the lengths
// that the entries state. Behind an entry that was cut off (a full disk, a crash) that place lies
// beyond the end of the file, and what is between reads as zeros: the cut entry would be whole
// again, with a key that anybody knows. So what is left of such an entry is removed, and a file too
// short for a format version, which libkrb5 would refuse for ever, gets one.
//
// Never touched is what libkrb5 can read, and it reads an entry's fields whatever length the entry
// states. A file with an entry whose length is smaller than its fields, or with one in its midst
// that libkrb5 cannot read (a key behind it would not be found), stays as it is.
//
// Returns 0 also for a keytab that is no file, that is not there yet, or that is of another format
// version; KRB5_KT_FORMAT for a file as just described. Anything but 0 is a reason not to append.
krb5_error_code MendKeytabFile(krb5_context context, krb5_keytab keytab);

}  // namespace tavrel

#endif
