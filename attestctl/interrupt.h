// Ctrl-C during a stream ends it in good order; a second one ends the program at once.
#pragma once

void watch_for_interrupt();

bool interrupted();
