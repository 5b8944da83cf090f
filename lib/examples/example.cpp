// Sends texts to a node through the agent, all at once, and prints the rows.
#include <iostream>
#include <lumo.hpp>
#include <vector>

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: example NODE TEXT...\n";
    return 2;
  }
  bool failed = false;
  const auto fail = [&failed](std::string_view words) {
    std::cerr << "example: " << words << '\n';
    failed = true;
  };
  liblumo::Connection agent;
  if (!agent) fail(agent.Opened().Text());
  std::vector<lumo_ticket> sent;
  for (int i = 2; agent && i < argc; ++i) {
    lumo_ticket ticket = 0;
    if (const auto status = agent.Send(liblumo::Request(argv[1], argv[i]), &ticket))
      sent.push_back(ticket);
    else
      fail(status.Text());
  }
  for (const lumo_ticket ticket : sent) {
    if (const liblumo::Answer answer = agent.Receive(ticket))
      std::cout << answer.Rows() << '\n';
    else  // refused by the node, failed, or nobody knows
      fail(answer.Words());
  }
  return failed ? 1 : 0;
}
