"""Numbers for people."""

_UNITS = ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"]


def size(count: float) -> str:
    """Bytes in the largest unit that leaves at least one: "512 B", "1.5 GiB"."""
    value, units = float(count), list(_UNITS)
    while value >= 1024 and len(units) > 1:
        value /= 1024
        units.pop(0)
    return f"{value:.0f} {units[0]}" if units[0] == "B" else f"{value:.1f} {units[0]}"


def duration(seconds: float) -> str:
    """In the two largest units that it has: "7 s", "2 min 5 s", "3 h 20 min", "3 days"."""
    whole = int(seconds)
    minutes, hours = whole // 60, whole // 3600
    if hours >= 48:
        return f"{hours // 24} days"
    if hours:
        return f"{hours} h {minutes % 60} min"
    return f"{minutes} min {whole % 60} s" if minutes else f"{whole} s"
