"""The Java VMs of the machine."""

import pathlib


def all_vms():
    """Each one's folder, by its name; links to one are none."""
    found = sorted(pathlib.Path("/usr/lib/jvm").glob("*/lib/server/libjvm.so"))
    # And one that tools/make-java-runtime made, as the sandbox sees it.
    found += pathlib.Path("/build").glob("java-runtime/lib/server/libjvm.so")
    homes = [library.parents[2] for library in found]
    return {home.name: home for home in homes if not home.is_symlink()}
