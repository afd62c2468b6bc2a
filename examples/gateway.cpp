// A page that says who its visitor is: HTTP with Negotiate (RFC 4559). See examples/README.md.
#include <microhttpd.h>
#include <openssl/evp.h>
#include <tavrel/plus/Acceptor.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace {

unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

// The token behind "Negotiate ", out of base64; empty when there is nothing of the kind.
std::string Token(std::string_view header) {
  if (header.substr(0, 10) != "Negotiate ") return "";
  std::string base64(header.substr(10));
  std::string token(base64.size(), '\0');
  const int size = EVP_DecodeBlock(Bytes(token), Bytes(base64), static_cast<int>(base64.size()));
  const auto padding = static_cast<int>(base64.size() - base64.find_last_not_of('=') - 1);
  return size > padding ? token.substr(0, static_cast<std::size_t>(size - padding)) : "";
}

MHD_Result Answer(void* acceptor, MHD_Connection* connection, const char*, const char*, const char*,
                  const char*, std::size_t*, void**) {
  const char* sent = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Authorization");
  const auto* const service = static_cast<const tavrel::plus::Acceptor*>(acceptor);
  auto came = service->Accept(Token(sent != nullptr ? sent : ""));
  std::string text = came ? "You are " + came.identity->RealmAndName() : came.refusal->text;
  auto* page = MHD_create_response_from_buffer(text.size(), text.data(), MHD_RESPMEM_MUST_COPY);
  std::string reply(came.reply.size() * 4 / 3 + 5, '\0');  // proves this machine to the client
  EVP_EncodeBlock(Bytes(reply), Bytes(came.reply), static_cast<int>(came.reply.size()));
  const std::string negotiate = came.reply.empty() ? "Negotiate" : "Negotiate " + reply;
  MHD_add_response_header(page, "WWW-Authenticate", negotiate.c_str());
  MHD_add_response_header(page, "Content-Type", "text/plain; charset=utf-8");
  const MHD_Result queued = MHD_queue_response(connection, came ? 200 : 401, page);
  MHD_destroy_response(page);
  return queued;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return std::cerr << "usage: gateway PORT KEYTAB REPLAY_FILE\n", 64;
  tavrel::plus::AcceptorOptions options;
  options.keytab = argv[2];
  options.replay_file = argv[3];
  std::string error = "cannot listen";
  const auto acceptor = tavrel::plus::Acceptor::Make(options, &error);
  const bool listens =
      acceptor && MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD,
                                   static_cast<std::uint16_t>(std::atoi(argv[1])), nullptr, nullptr,
                                   Answer, acceptor.get(), MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                                   std::size_t{80} * 1024, MHD_OPTION_END);
  if (!listens) return std::cerr << "gateway: " << error << '\n', 1;
  std::cout << "listening on port " << argv[1] << std::endl;
  pause();  // until a signal ends it
}
