"""What is installed, what an update leaves alone, and the shipped configuration of the component."""

import os
import re
import shutil
import stat
import subprocess
import unittest

from host_fixture import HostTestCase, PATIENCE

BUILD = os.environ["QMLOGCACHE_BUILD"]
CMAKE = os.environ["QMLOGCACHE_CMAKE"]


class InstallTest(HostTestCase):
    def setUp(self):
        super().setUp()
        self.tree = self.dir / "tree"

    def cmake_install(self, prefix, **environment):
        return subprocess.run(
            [CMAKE, "--install", BUILD, "--prefix", prefix], capture_output=True, text=True, check=True,
            timeout=PATIENCE, env={**os.environ, **environment},
        )  # fmt: skip

    def test_one_prefix_holds_everything_an_agent_needs(self):
        self.cmake_install(self.tree)
        for name in ("bin/qmhost", "bin/qmsend", "bin/qmcache", "lib/libqmlogcache.so", "lib/libqmplatform.so", "etc/qmhost.conf",
                     "etc/qmlogcache/qmlogcache.conf"):  # fmt: skip
            self.assertTrue((self.tree / name).is_file(), name)
        for name in ("data", "log"):
            self.assertEqual(list((self.tree / name).iterdir()), [])
            self.assertEqual(stat.S_IMODE((self.tree / name).stat().st_mode), 0o750, name)

    def test_an_update_keeps_what_the_operator_wrote(self):
        for destdir in ("", str(self.dir / "package")):
            with self.subTest(destdir=destdir):
                self.cmake_install(self.tree, DESTDIR=destdir)
                root = self.dir / "package" / self.tree.relative_to("/") if destdir else self.tree
                files = [root / "etc/qmhost.conf", root / "etc/qmlogcache/qmlogcache.conf"]
                shipped = [path.read_bytes() for path in files]
                self.cmake_install(self.tree, DESTDIR=destdir)
                self.assertEqual([path.read_bytes() for path in files], shipped)
                self.assertEqual(list(root.rglob("*.new")), [])
                for path in files:
                    path.write_bytes(b"; mine\n")
                self.cmake_install(self.tree, DESTDIR=destdir)
                self.assertEqual([path.read_bytes() for path in files], [b"; mine\n"] * 2)
                beside = [path.with_name(path.name + ".new") for path in files]
                self.assertEqual([path.read_bytes() for path in beside], shipped)


class InstallTreeTest(HostTestCase):
    def warnings(self):
        return [line for line in self.log_text("qmhost").splitlines() if "the installation is incomplete" in line]

    def test_the_host_makes_what_is_missing_of_the_tree(self):
        shutil.rmtree(self.prefix / "etc")
        self.start_host()
        for name, mode in (("etc/qmlogcache", 0o755), ("data", 0o750), ("log", 0o750)):
            self.assertEqual(stat.S_IMODE((self.prefix / name).stat().st_mode), mode, name)
        self.assertEqual(self.stop_host(), 0)
        self.assertEqual(self.warnings(), [])

    def test_a_tree_that_cannot_be_made_is_a_warning_and_no_failed_start(self):
        shutil.rmtree(self.prefix / "etc")
        (self.prefix / "etc").write_bytes(b"")
        self.start_host()
        self.assertEqual(self.send(data=b"x\n").returncode, 0)
        self.wait_for_records(1)
        self.assertEqual(self.stop_host(), 0)
        (warning,) = self.warnings()
        text = f"*qmhost the installation is incomplete: {self.prefix.resolve()}/etc is not a directory"
        self.assertRegex(warning, " L3 " + re.escape(text) + "$")
        self.assertTrue((self.prefix / "data").is_dir())


class ShippedCacheConfigTest(HostTestCase):
    """The component's own word for what it runs on, with and without the shipped file."""

    KEYS = ["logcachepath", "logcachesize", "logcachetotalsize", "diskfreesize", "dataflowflag", "datacountlimit",
            "localdatacountlimit", "datacoverflag"]  # fmt: skip

    def setUp(self):
        super().setUp()
        self.write_config(log={"levels": "2,3,4,6"})
        self.file = self.prefix / "etc" / "qmlogcache" / "qmlogcache.conf"
        self.file.unlink()

    def told(self):
        """The rest of the line in which the component tells its configuration."""
        self.start_host()
        self.assertEqual(self.stop_host(), 0)
        lines = re.findall(r" L2 qmlogcache CLogCacheMon::InitLogCacheMon (.*)", self.log_text("qmlogcache"))
        shutil.rmtree(self.log_dir)
        self.assertEqual(len(lines), 1)
        return lines[0]

    def test_it_names_every_key_with_the_default(self):
        defaults = self.told()
        bin_dir = (self.prefix / "bin").resolve()
        self.assertEqual(
            defaults,
            "dwDataFlowFlag[0] dwDataCountLimit[500000] dwLocalDataCountLimit[100000] dwDataCoverFlag[0] "
            "u64LogCacheSize[524288000] u64DiskFreeSpace[524288000] u64LogCacheTotalSize[2147483648] "
            f"strCfgLogCachePath[../data/qmlogcache/] strLogCachePath[{bin_dir}/../data/qmlogcache/]",
        )
        subprocess.run([CMAKE, "--install", BUILD, "--prefix", self.dir / "tree"], check=True, timeout=PATIENCE,
                       capture_output=True)  # fmt: skip
        shipped = (self.dir / "tree/etc/qmlogcache/qmlogcache.conf").read_text()
        self.file.write_text(shipped)
        self.assertEqual(self.told(), defaults)

        # A comment has a blank behind its semicolon, a key has none.
        uncommented = re.sub(r"^;(?=[a-z])", "", shipped, flags=re.MULTILINE)
        self.assertEqual(re.findall(r"^([a-z]+) = ", uncommented, flags=re.MULTILINE), self.KEYS)
        self.file.write_text(uncommented)
        self.assertEqual(self.told(), defaults)

        # And each of these lines is one that the component reads.
        self.file.write_text(re.sub(r"^([a-z]+) = .*", r"\1 = 7", uncommented, flags=re.MULTILINE))
        self.assertEqual(
            self.told(),
            "dwDataFlowFlag[7] dwDataCountLimit[7] dwLocalDataCountLimit[7] dwDataCoverFlag[7] u64LogCacheSize[7] "
            f"u64DiskFreeSpace[7] u64LogCacheTotalSize[7] strCfgLogCachePath[7] strLogCachePath[{bin_dir}/7]",
        )


if __name__ == "__main__":
    unittest.main()
