"""The commands of a wheel: programs that lie in this package."""
import os
import pathlib
import runpy
import sys

HERE = pathlib.Path(__file__).resolve().parent


def cancel_wav() -> None:
    os.execv(str(HERE / "cancel_wav"), ["cancel_wav", *sys.argv[1:]])


def diagnose_wav() -> None:
    runpy.run_path(str(HERE / "programs" / "diagnose_wav"), run_name="__main__")
