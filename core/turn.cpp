#include "core/turn.h"

#include <algorithm>

namespace {

constexpr int kPacketsInARow = 256;
constexpr int kFloodInARow = 8;  // of those that answer nothing, while a link sends many of them

struct Turn {
  int Packets;
  int Unasked;  // those that answered no request
};
Turn turn;
int unaskedAllowed = kPacketsInARow;  // in one turn
bool flooded;                         // in a turn since the last pass

}  // namespace

void CountPacket(bool answered) {
  ++turn.Packets;
  turn.Unasked += !answered;
}

bool TurnIsOver() { return turn.Packets >= kPacketsInARow || turn.Unasked >= unaskedAllowed; }

void EndTurn() {
  flooded = flooded || turn.Unasked >= std::min(unaskedAllowed, kPacketsInARow / 2);
  turn = {};
}

bool AllHaveTurns() { return unaskedAllowed != kPacketsInARow; }

void EndPassOfTurns() {
  unaskedAllowed = flooded ? kFloodInARow : kPacketsInARow;
  flooded = false;
}
