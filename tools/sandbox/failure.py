"""How the node's tools say that something cannot be done: one line, and the exit status that goes with it."""

USAGE = 2  # wrong usage, or something is missing
NODE_FAILED = 3  # the node did not come up, or its agent ended
COMMAND_NOT_FOUND = 127  # as a shell has it


class Failure(Exception):
    def __init__(self, text, status=USAGE):
        super().__init__(text)
        self.status = status
