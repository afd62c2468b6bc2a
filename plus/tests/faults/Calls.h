// Which library is interposed, and the types in the calls that it makes. Every source of the
// machinery that is shared with the core's sweep is compiled behind this.
#ifndef TAVREL_PLUS_TESTS_FAULTS_CALLS_H
#define TAVREL_PLUS_TESTS_FAULTS_CALLS_H

#include <gssapi/gssapi_ext.h>
#include <krb5.h>
#include <ldap.h>
#include <netdb.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <poll.h>
#include <profile.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>

#define TAVREL_INTERPOSED_LIBRARY "libtavrel-plus.so"
#ifndef TAVREL_INTERPOSED_CALLS
#define TAVREL_INTERPOSED_CALLS "MembershipCalls.inc"
#endif

#endif
