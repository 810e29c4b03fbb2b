# SPDX-License-Identifier: GPL-2.0-only
"""The Debian packages as a machine has them: the module's, after DKMS has built it for its kernel, and the daemon's."""
import os
import shutil
import subprocess

from .failure import HarnessError
from .kernel import KMOD_PATH


def run(words, log, **more):
    with log.open("ab") as out:
        if subprocess.run([str(w) for w in words], stdout=out, stderr=subprocess.STDOUT, **more).returncode:
            raise HarnessError(f"'{' '.join(map(str, words))}' failed; {log} ends with:\n" +
                               "\n".join(log.read_text(errors="replace").splitlines()[-20:]))


def unpacked(which, top, work):
    """Builds one package and unpacks it; returns the directory with the files and the log."""
    shutil.rmtree(work, ignore_errors=True)
    tree = work / "installed"
    tree.mkdir(parents=True)
    log = work / "package.log"
    run([top / "packaging/build", "--only", which, "--output", work], log)
    packages = list(work.glob("*.deb"))
    if len(packages) != 1:
        raise HarnessError(f"packaging/build has left {len(packages)} packages in {work}, not 1")
    run(["dpkg-deb", "-x", packages[0], tree], log)
    return tree, log


def installed(kernel, top, work):
    """Builds the module's package and the module from the sources in it; returns the directory with the installed files."""
    tree, log = unpacked("dkms", top, work)
    source = next((tree / "usr/src").glob("quendrel-*"))
    run([source / "dkms-make", kernel.kdir], log)
    modules = tree / "lib/modules" / kernel.release / "updates/dkms"
    modules.mkdir(parents=True)
    shutil.copyfile(source / "ko/quendrel.ko", modules / "quendrel.ko")
    shutil.rmtree(tree / "usr")
    run(["depmod", "-b", tree, kernel.release], log, env={**os.environ, "PATH": KMOD_PATH})
    return tree
