// Rudeness on a TCP connection whose descriptor somebody else owns and closes.
#pragma once

// Makes the other end see a reset, at once.
void reset_connection(int connection);

// Says nothing until the other end has gone, or for far longer than anybody waits; then resets.
void stall_connection(int connection);
