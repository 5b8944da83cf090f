// The turns of links: a link that keeps delivering goes first, but not for ever.
//
// Beside one that floods the agent with packets that answer nothing, a single packet in a pass
// would be too little for the others: then all have turns, and those of the flood are short, until
// it pauses.
#pragma once

// One more packet of the link has been read; `answered`: it released a request.
void CountPacket(bool answered);
bool TurnIsOver();
void EndTurn();

// In a pass over all links each of them has a turn of several packets, not just one.
bool AllHaveTurns();
// That pass is over.
void EndPassOfTurns();
