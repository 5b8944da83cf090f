// Sends the same text to several nodes at once: example TEXT NODE...
#include <iostream>
#include <lumo.hpp>
#include <map>

int main(int argc, char** argv) {
  liblumo::Connection agent;
  if (argc < 3 || !agent) {
    std::cerr << agent.Opened().Text() << '\n';
    return 1;
  }
  std::map<lumo_ticket, std::string> nodes;
  for (int i = 2; i < argc; ++i) {
    lumo_ticket ticket = 0;
    if (agent.Send(liblumo::Request(argv[i], argv[1]), &ticket)) nodes[ticket] = argv[i];
  }
  for (liblumo::Answer answer; answer = agent.ReceiveAny(), answer.Ended();)
    std::cout << nodes[answer.Ticket()] << ": " << (answer ? answer.String(3) : answer.Words())
              << '\n';
}
