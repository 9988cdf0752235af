"""What the web servers' configurations have ready to be turned on."""

import re

# As the comments there begin.
TLS, PASSWORD = "TLS", "A password"


def with_parts(text, parts):
    """With the lines in use that stand commented out, without a blank, below a comment that begins so. And the
    commands that the comment has for it."""
    lines, commands, is_wanted = [], [], False
    for line in text.splitlines():
        bare = line.strip()
        if not bare.startswith("#"):
            is_wanted = False
        is_wanted |= bare.startswith(tuple(f"# {part}" for part in parts))
        if is_wanted and bare.startswith("#     "):
            commands.append(bare[6:])
        lines.append(re.sub(r"^(\s*)#(?=[^ ]|    [^ ])", r"\1", line) if is_wanted else line)
    return "\n".join(lines) + "\n", "\n".join(commands)
