# SPDX-License-Identifier: Apache-2.0
"""What the reports share: tables, numbers, where the figures come from."""

QUIET = 0.15  # share of the processors' time that others may use


def table(head, rows):
    yield "| " + " | ".join(head) + " |"
    yield "|---|" + "---:|" * (len(head) - 1)
    yield from ("| " + " | ".join(row) + " |" for row in rows)
    yield ""


def goals_table(goals):
    """goals: (goal, measured, reached)."""
    return table(["goal", "measured", "reached"],
                 [[goal, measured, "yes" if reached else "**no**"] for goal, measured, reached in goals])


def count(value):
    """Three significant digits at least, thousands set apart."""
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def origin(command, figures):
    """When, where and on what the figures were measured."""
    machine = figures["machine"]
    return (f"`{command}`, {figures['date'][:10]}, on {machine['processor']}, {machine['cores']} cores, "
            f"{machine['memory_gib']} GiB, Linux {machine['kernel']}; commit {figures['commit']}.")
