/// @file
/// Who signed in, as a ticket of the domain says it.
#ifndef TAVREL_PLUS_IDENTITY_H
#define TAVREL_PLUS_IDENTITY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tavrel/Export.h"
#include "tavrel/plus/Sid.h"

namespace tavrel::plus {

/// A Kerberos name, its parts as they are: they can hold any bytes.
struct TAVREL_EXPORT Principal {
  std::vector<std::string> components;
  std::string realm;

  /// As Kerberos writes it, `HTTP/www.example.com@EXAMPLE.COM`: a backslash goes before what would
  /// otherwise separate parts; newline, tab, backspace and NUL become a backslash and `n`, `t`, `b`
  /// or `0`. All other bytes are as they are.
  std::string Text() const;
};

/// A group that a user is in, and how ([MS-PAC] 2.2.1).
struct GroupMembership {
  static constexpr std::uint32_t kMandatory = 0x1;
  static constexpr std::uint32_t kEnabledByDefault = 0x2;
  static constexpr std::uint32_t kEnabled = 0x4;
  static constexpr std::uint32_t kDenyOnly = 0x10;

  Sid sid;
  std::uint32_t attributes = 0;

  /// True when the membership may grant something.
  bool Grants() const { return (attributes & kEnabled) != 0 && (attributes & kDenyOnly) == 0; }
};

/// Services that acted for the user on the way here ([MS-PAC] 2.9).
struct Delegation {
  std::string target;                ///< the service that the last of them asked for
  std::vector<std::string> through;  ///< who acted, the first one first
};

/// What the domain controller knows of a user: the content of the ticket's PAC, whose signature was
/// verified with the service's key. Texts are UTF-8.
struct TAVREL_EXPORT Authorization {
  std::string logon_name;       ///< sAMAccountName, `alice`
  std::string full_name;        ///< empty when the account has none
  std::string upn;              ///< `alice@corp.example.com`; empty when the controller sends none
  bool upn_is_made_up = false;  ///< the account has no UPN of its own; `upn` is name and domain
  std::string netbios_domain;   ///< `CORP`
  std::string dns_domain;       ///< `CORP.EXAMPLE.COM`; empty when the controller sends none
  std::string logon_server;     ///< NetBIOS name of the controller
  Sid user;
  Sid primary_group;
  Sid domain;                       ///< of the user, not necessarily of this machine
  std::uint32_t account_flags = 0;  ///< UserAccountControl of [MS-SAMR] 2.2.1.12

  std::vector<GroupMembership> groups;           ///< of the user's domain, the primary one included
  std::vector<GroupMembership> extra_sids;       ///< universal groups, SID history, well-known ones
  std::vector<GroupMembership> resource_groups;  ///< domain-local groups of the service's domain

  std::optional<Delegation> delegation;
  /// PAC_ATTRIBUTES_INFO ([MS-PAC] 2.14): 1 the client asked for a PAC, 2 it did not say.
  std::optional<std::uint32_t> pac_attributes;
  std::optional<Sid> requestor;  ///< PAC_REQUESTOR ([MS-PAC] 2.15), equal to `user`

  /// True when `sid` is the user, or a group that the user is in and that may grant something.
  bool IsMemberOf(const Sid& sid) const;
};

/// Who signed in, as the service's key sealed it, with these exceptions: whoever has the ticket can
/// change `key_version`, and rename `service` to another one of the same key; and `gss_flags` are
/// the client's word.
struct TAVREL_EXPORT Identity {
  Principal client;
  Principal service;  ///< as the client's ticket names it

  std::int64_t auth_time = 0;   ///< when the user gave a password; seconds since 1970, as all are
  std::int64_t start_time = 0;  ///< of the ticket
  std::int64_t end_time = 0;    ///< of the ticket
  std::int32_t ticket_enctype = 0;   ///< RFC 3961's numbers: 18 and 17 AES, 23 RC4
  std::int32_t session_enctype = 0;  ///< likewise
  std::uint32_t key_version = 0;     ///< that the ticket asked for; 0 when it did not say
  std::uint32_t ticket_flags = 0;    ///< RFC 4120, 5.3, the first flag in the highest bit
  std::uint32_t gss_flags = 0;       ///< RFC 4121, 4.1.1.1
  bool channel_bound = false;        ///< the client is at the other end of the channel given

  std::optional<Authorization> authorization;  ///< nothing when the ticket has no PAC

  /// `CORP.EXAMPLE.COM\alice`: realm and last component, what the core's `Authenticate` returns. A
  /// text to show: `alice` and `x/alice` have the same.
  std::string RealmAndName() const;

  /// True when `sid` is the user or one of the user's groups that may grant something. False
  /// without a PAC. Whoever administers a trusted domain may name any group: see IsOfDomain().
  bool IsMemberOf(const Sid& sid) const;

  /// True when the client is of the service's own realm and its identifier of the domain `domain`.
  bool IsOfDomain(const Sid& domain) const;
};

}  // namespace tavrel::plus

#endif
