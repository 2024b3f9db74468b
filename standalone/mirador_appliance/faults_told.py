"""Errors that are told to a person in one line."""


class Refused(Exception):
    """Something that cannot be done, said in one line without a full stop.

    status: the program's exit status, 1 for a state of the machine, 2 for a wrong command line.
    """

    def __init__(self, text: str, status: int = 1) -> None:
        super().__init__(text)
        self.status = status


def reason(error: OSError) -> str:
    """What an OSError says, without its number and paths."""
    return error.strerror or str(error) or type(error).__name__
