// A page that says who its visitor is: HTTP with Negotiate (RFC 4559). tavrel-authd does the same
// for a proxy, with sessions, a policy and TLS in front; see tools/README.md.
//
//   gateway PORT KEYTAB REPLAY_FILE      on a machine that has AES keys: tavrel enrol
#include <microhttpd.h>
#include <openssl/evp.h>
#include <tavrel/plus/Acceptor.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

namespace {

const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

// What stands behind "Negotiate ", decoded; empty when there is nothing of the kind.
std::string Token(const char* header) {
  if (header == nullptr || std::strncmp(header, "Negotiate ", 10) != 0) return "";
  const std::string base64 = header + 10;
  std::string token(base64.size(), '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(token.data()), Bytes(base64),
                                   static_cast<int>(base64.size()));
  const std::size_t padding = base64.size() - (base64.find_last_not_of('=') + 1);
  if (size < 0 || padding > 2) return "";
  token.resize(static_cast<std::size_t>(size) - padding);
  return token;
}

MHD_Result Answer(void* acceptor, MHD_Connection* connection, const char* /*path*/, const char*,
                  const char*, const char*, std::size_t*, void**) {
  const std::string token =
      Token(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Authorization"));
  const auto came = static_cast<const tavrel::plus::Acceptor*>(acceptor)->Accept(token);
  std::string page = came ? "You are " + came.identity->RealmAndName() : came.refusal->text;
  MHD_Response* const response =
      MHD_create_response_from_buffer(page.size(), page.data(), MHD_RESPMEM_MUST_COPY);
  std::string negotiate = "Negotiate";
  if (!came.reply.empty()) {  // proves this machine to the client
    std::string base64(came.reply.size() * 4 / 3 + 5, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()), Bytes(came.reply),
                    static_cast<int>(came.reply.size()));
    negotiate += std::string(" ") + base64.c_str();
  }
  MHD_add_response_header(response, "WWW-Authenticate", negotiate.c_str());
  MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
  const MHD_Result sent = MHD_queue_response(connection, came ? 200 : 401, response);
  MHD_destroy_response(response);
  return sent;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return std::cerr << "usage: gateway PORT KEYTAB REPLAY_FILE\n", 64;
  tavrel::plus::AcceptorOptions options;
  options.keytab = argv[2];
  options.replay_file = argv[3];
  std::string error;
  const auto acceptor = tavrel::plus::Acceptor::Make(options, &error);
  if (!acceptor) return std::cerr << "gateway: " << error << '\n', 1;
  const MHD_Daemon* const server = MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD, static_cast<std::uint16_t>(std::atoi(argv[1])), nullptr,
      nullptr, Answer, acceptor.get(), MHD_OPTION_CONNECTION_MEMORY_LIMIT, std::size_t{80} * 1024,
      MHD_OPTION_END);
  if (server == nullptr) return std::cerr << "gateway: cannot listen\n", 1;
  std::cout << "listening on port " << argv[1] << std::endl;
  pause();  // until a signal ends it
}
