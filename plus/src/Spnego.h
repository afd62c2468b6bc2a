// The framing of a client's tokens (RFC 2743, 3.1; RFC 4178; RFC 4121), and of the answers to
// them.
#ifndef TAVREL_PLUS_SRC_SPNEGO_H
#define TAVREL_PLUS_SRC_SPNEGO_H

#include <optional>
#include <string>
#include <string_view>

namespace tavrel::plus {

// A token of Kerberos, or what there is instead, taken apart. All of it points into the token.
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
  std::string_view request;     // the AP-REQ; empty unless kKerberos
  bool negotiated = false;      // SPNEGO; the following are of SPNEGO
  std::string_view mechanism;   // Kerberos as the list has it, an OID's content; empty: it has none
  std::string_view mechanisms;  // the list itself, in DER: what a mechListMIC is made of
  std::optional<std::string_view> mic;  // mechListMIC
};

// Reads a first token by the letter: what is no initial token of these standards is kMalformed,
// anything behind the token's end included. A list's token is of the first mechanism in it.
InitialToken ReadInitialToken(std::string_view token);

// Reads a later token of a negotiation (NegTokenResp, RFC 4178, 4.2.2): kKerberos with a request,
// kNothingSent without one. Its list is that of the first token.
InitialToken ReadLaterToken(std::string_view token, std::string_view mechanisms);

enum class NegotiationState : char {  // RFC 4178, 4.2.2
  kCompleted = 0,
  kIncomplete = 1,
  kRequestMic = 3,
};

// What the client gets: `response` (an AP-REP, or empty when it asked for none) and `mic`
// (optional) in the same framing that `token` came in. Empty when there is nothing to send.
std::string ReplyTo(const InitialToken& token, std::string_view response, std::string_view mic,
                    NegotiationState state = NegotiationState::kCompleted);

}  // namespace tavrel::plus

#endif
