"""The Python package: python/quolvent and its extension module, _quolvent,
which the project's own CMake build makes (clang++, libomp, Highway: what the
layer libraries are built with).

  QUOLVENT_BUILD_DIR      a configured build tree to take the module from,
                          built there first where out of date; it must be
                          configured for this interpreter
  QUOLVENT_PACKAGE_BUILD  where the package build writes (default
                          build-python/): setuptools' folders, the metadata,
                          and the CMake tree when no QUOLVENT_BUILD_DIR is given
"""

import os
import shutil
import subprocess
import sys
import sysconfig

from setuptools import Extension, find_packages, setup
from setuptools.command.build_ext import build_ext

root = os.path.dirname(os.path.abspath(__file__))
package_build = os.path.abspath(os.environ.get("QUOLVENT_PACKAGE_BUILD") or
                                os.path.join(root, "build-python"))
os.makedirs(package_build, exist_ok=True)


def run(command):
    print(" ".join(command), flush=True)
    subprocess.run(command, check=True)


class cmake_build_ext(build_ext):
    """Builds the module's CMake target and copies it where setuptools packs it."""

    def build_extension(self, ext):
        cmake = shutil.which("cmake")
        if cmake is None:
            sys.exit("quolvent: the extension module is built with CMake, which is not on the PATH "
                     "(Debian: scripts/setup.sh)")
        tree = os.environ.get("QUOLVENT_BUILD_DIR")
        if tree:
            tree = os.path.abspath(tree)
        else:
            tree = os.path.join(package_build, "cmake")
            if not os.path.exists(os.path.join(tree, "CMakeCache.txt")):
                configure = [cmake, "-S", root, "-B", tree, "-DCMAKE_CXX_COMPILER=clang++",
                             "-DCMAKE_BUILD_TYPE=Release", "-DQUOLVENT_TESTS=OFF",
                             "-DQUOLVENT_BENCH=OFF", "-DQUOLVENT_FUZZ=OFF", "-DQUOLVENT_GPU=OFF",
                             f"-DPython3_EXECUTABLE={sys.executable}"]
                if shutil.which("ninja"):
                    configure += ["-G", "Ninja"]
                run(configure)
        run([cmake, "--build", tree, "--target", "_quolvent"])
        name = "_quolvent" + sysconfig.get_config_var("EXT_SUFFIX")
        built = os.path.join(tree, "python", "quolvent", name)
        if not os.path.exists(built):
            sys.exit(f"quolvent: {tree} has no {name} for this interpreter ({sys.executable}); "
                     f"configure it with -DPython3_EXECUTABLE={sys.executable}")
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(built, target)


setup(packages=find_packages("python"),
      package_dir={"": "python"},
      ext_modules=[Extension("quolvent._quolvent", sources=[])],
      cmdclass={"build_ext": cmake_build_ext},
      options={"build": {"build_base": package_build},
               "egg_info": {"egg_base": package_build}})
