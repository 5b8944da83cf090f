// The metrics as an endpoint.
#include <httplib.h>

#include <iostream>

#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/metrics.h"

namespace lumo::ctl {
namespace {

constexpr char kContentType[] = "text/plain; version=0.0.4; charset=utf-8";
constexpr std::size_t kThreads = 4;
constexpr std::time_t kPatienceSeconds = 5;  // with a client that does not read or write

struct Place {
  std::string Address;
  int Port = -1;
};

// "127.0.0.1:9560", "[::1]:9560"
Place ParsePlace(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
  const bool isNumber = !port.empty() && port.size() <= 5 &&
                        port.find_first_not_of("0123456789") == std::string::npos;
  Place place{text.substr(0, colon), isNumber ? std::stoi(port) : -1};
  if (place.Address.size() > 2 && place.Address.front() == '[' && place.Address.back() == ']')
    place.Address = place.Address.substr(1, place.Address.size() - 2);
  if (place.Address.empty() || place.Port < 0 || place.Port > 65535)
    throw Failure(kUsage, '"' + text + "\" is no ADDRESS:PORT");
  return place;
}

}  // namespace

int ServeMetrics(const std::string& text, std::string (*collect)(const Options&),
                 const Options& options) {
  Place place = ParsePlace(text);
  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  server.set_read_timeout(kPatienceSeconds);
  server.set_write_timeout(kPatienceSeconds);
  server.Get("/metrics", [&](const httplib::Request&, httplib::Response& response) {
    response.set_content(collect(options), kContentType);
  });
  const bool bound = place.Port == 0
                         ? (place.Port = server.bind_to_any_port(place.Address.c_str())) > 0
                         : server.bind_to_port(place.Address.c_str(), place.Port);
  if (!bound) throw Failure(kFailed, text + " cannot be listened on");
  std::cout << "listening on " << text.substr(0, text.rfind(':')) << ':' << place.Port << std::endl;
  if (!server.listen_after_bind()) throw Failure(kFailed, "the endpoint has ended");
  return kDone;
}

}  // namespace lumo::ctl
