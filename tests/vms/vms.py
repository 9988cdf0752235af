"""The Java VMs of the machine."""

import pathlib
import re


def all_vms(build):
    """Each one's folder, by its name; links to one are none. The one that `build` was configured with may be
    elsewhere."""
    homes = list(pathlib.Path("/usr/lib/jvm").glob("*"))
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    if own := re.search(r"^JAVA_HOME_IN_USE:\w+=(.+)$", cache, re.MULTILINE):
        homes.append(pathlib.Path(own[1]))
    # And one that tools/make-java-runtime made, as the sandbox sees it.
    homes.append(pathlib.Path("/build/java-runtime"))
    return {home.name: home for home in sorted(homes)
            if (home / "lib/server/libjvm.so").exists() and not home.is_symlink()}


def is_jdk(home):
    """Whether programs can be built with it."""
    return (home / "bin/javac").exists() and (home / "include/jni.h").exists()
