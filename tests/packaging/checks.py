"""What holds for the packages of every processor."""

import subprocess

import root


def told(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


class Checks:
    """For a TestCase with `made`, the packages by their names, and `folder`, where they are. `BUILDERS`: where
    the JDKs are that they must not name."""

    BUILDERS = ("openjdk-amd64",)

    def test_lintian_has_nothing_to_say(self):
        said = subprocess.run(["lintian", "--pedantic", "--allow-root", *self.folder.glob("*.deb"),
                               *(self.folder / "debug").glob("*.deb")],
                              capture_output=True, text=True, check=False)
        self.assertEqual(said.stdout, "")
        self.assertEqual(said.returncode, 0, said.stderr)

    def test_the_checksums_are_those_of_the_files(self):
        subprocess.run(["sha256sum", "--check", "--quiet", "SHA256SUMS"], cwd=self.folder, check=True)

    def test_nothing_tells_of_the_building_machine(self):
        """Neither paths of the build nor those of its Java VM."""
        for name, file in self.made.items():
            with self.subTest(name):
                content = subprocess.run(["dpkg-deb", "--fsys-tarfile", file], capture_output=True,
                                         check=True).stdout
                for path in (str(root.SOURCE), str(self.folder.parent), *self.BUILDERS):
                    self.assertNotIn(path.encode(), content)
