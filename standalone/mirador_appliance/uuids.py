"""Forms of a uuid."""

import re
import uuid

_NAMESPACE = uuid.UUID("8f2a54f6-77d5-4d0f-9f6c-1d6fbb6a2b64")  # of the uuids derived here


def normalised(text: str | None) -> str | None:
    """The dashed lower-case form of a uuid in any spelling ("56 4d … -a1 …", braces, no dashes); None for no uuid."""
    digits = re.sub(r"[\s{}-]", "", text or "").lower()
    if not re.fullmatch(r"[0-9a-f]{32}", digits) or digits == "0" * 32:
        return None
    return str(uuid.UUID(digits))


def derived(text: str) -> str:
    """A uuid of its own for what has none: always the same for the same text."""
    return str(uuid.uuid5(_NAMESPACE, text.encode("utf-8", "surrogateescape").hex()))
