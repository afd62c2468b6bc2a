// The framing of a client's first token (RFC 2743, 3.1; RFC 4178; RFC 4121), and of the answer to
// it.
#ifndef TAVREL_PLUS_SRC_SPNEGO_H
#define TAVREL_PLUS_SRC_SPNEGO_H

#include <optional>
#include <string>
#include <string_view>

namespace tavrel::plus {

// A first token, taken apart. All of it points into the token.
struct InitialToken {
  enum class Kind {
    kKerberos,
    kEmpty,
    kNtlm,         // NTLM itself, or the token of a list that has NTLM first
    kOther,        // of another mechanism
    kNothingSent,  // a list with Kerberos first, but no token for it
    kMalformed,
  };

  Kind kind = Kind::kMalformed;
  // The following are of kKerberos.
  std::string_view request;    // the AP-REQ
  bool negotiated = false;     // SPNEGO; the following are of SPNEGO
  std::string_view mechanism;  // the one that the token is of, as the list has it: an OID's content
  std::string_view mechanisms;          // the list itself, in DER: what a mechListMIC is made of
  std::optional<std::string_view> mic;  // mechListMIC
};

// Reads `token` by the letter: what is no initial token of these standards is kMalformed, anything
// behind the token's end included. A list's token is of the first mechanism in it.
InitialToken ReadInitialToken(std::string_view token);

// What the client gets: `response` (an AP-REP, or empty when it asked for none) and `mic`
// (optional) in the same framing that `token` came in. Empty when there is nothing to send.
std::string ReplyTo(const InitialToken& token, std::string_view response, std::string_view mic);

}  // namespace tavrel::plus

#endif
