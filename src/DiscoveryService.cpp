#include "tavrel/DiscoveryService.h"

#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <memory>

#include "Log.h"

namespace tavrel {
namespace {

const Logger logger("discovery");

constexpr int kLargestAnswer = 65535;  // the largest DNS message there is

// Where an SRV record's data holds its port and its target (RFC 2782).
constexpr int kPortOffset = 4;
constexpr int kTargetOffset = 6;

}  // namespace

std::list<std::string> DNSDiscoveryService::GetLDAPHosts(const std::string& domain) const {
  std::list<std::string> hosts;
  const std::unique_ptr<unsigned char[]> answer(new unsigned char[kLargestAnswer]);
  const std::string query = "_ldap._tcp.dc._msdcs." + domain;

  logger.Detail("Discovering dns hosts for domain ", domain);
  const int length = res_search(query.c_str(), ns_c_in, ns_t_srv, answer.get(), kLargestAnswer);
  if (length < 0) {
    logger.Error("Error in dns search for domain  ", domain);
    return hosts;
  }

  ns_msg message;
  if (ns_initparse(answer.get(), std::min(length, kLargestAnswer), &message) == -1) {
    logger.Error("Error parsing DNS answer for ", domain);
    return hosts;
  }
  if (ns_msg_getflag(message, ns_f_rcode) != ns_r_noerror) {
    logger.Error("The DNS header answer reported an error for ", domain);
    return hosts;
  }
  const int count = ns_msg_count(message, ns_s_an);
  if (count == 0) {
    logger.Error("DNS reported no answers for ", domain);
    return hosts;
  }

  for (int i = 0; i < count; ++i) {
    ns_rr record;
    const bool parsed = ns_parserr(&message, ns_s_an, i, &record) == 0;
    if (parsed && ns_rr_type(record) != ns_t_srv) continue;
    if (!parsed || ns_rr_rdlen(record) < kTargetOffset) {
      logger.Warning("Error parsing DNS response record ", i, " for ", domain);
      continue;
    }

    const unsigned char* data = ns_rr_rdata(record);
    const unsigned port = ns_get16(data + kPortOffset);
    logger.Detail("SRV Port: ", port);

    char target[NS_MAXDNAME];
    const int used = ns_name_uncompress(ns_msg_base(message), ns_msg_end(message),
                                        data + kTargetOffset, target, sizeof target);
    // A name that runs past its record has bytes of the next one.
    if (used == -1 || used > ns_rr_rdlen(record) - kTargetOffset) {
      logger.Error("Error uncompressing target for ", domain);
      continue;
    }
    logger.Detail("SRV Target: ", target);
    hosts.push_back(std::string(target) + ":" + std::to_string(port));
  }
  return hosts;
}

}  // namespace tavrel
