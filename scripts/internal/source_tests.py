"""Which test tries which source.

A source's test is tests/FOLDER/NAMETest.cpp, or the one that TESTED_BY names. What each system has of
os/NAME.h is tested as what that header promises.
"""
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]

# A test file below tests/, without its ending, why it tests more than its own source, and what.
TESTED_BY = {
    "analysis/diagnosis/DiagnosisTest": (
        "steps of one walk, whose findings are compared with the reader's refusals as a whole",
        ["analysis/diagnosis/" + name for name in [
            "ImageDiagnosis", "RowCodesMisfit", "TextDiagnosis", "TextHeadWalk", "TextLayersWalk"]]),
    "c/MlnnTest": ("what is behind the handles, which C sees through them", ["c/OpenedModel"]),
    "inference/CodedFwdPassTest": ("the layers of that pass", ["inference/CodedLayer"]),
    "inference/DevicePassTest": ("a part of that pass", ["inference/DevicePassIntegers"]),
    "inference/ImageFwdPassTest": ("the layers of that pass", ["inference/ImageLayers"]),
    "inference/IntegerFwdPassTest": (
        "the layers of that pass, and the walk through them",
        ["inference/" + name for name in ["IntegerImageLayers", "IntegerLayers", "IntegerStackPass"]]),
    "inference/NNFwdPassFromFileTest": ("the walk of every float pass", ["inference/LayerStackPass"]),
    "inference/kernels/KernelsTest": (
        "how the kernels for this processor are found, of which the test runs each",
        ["inference/kernels/Processor", "inference/kernels/UnfusedKernels"]),
    "os/windows/SystemTest": (
        "what the other sources of that system use",
        ["os/windows/" + name for name in ["Errors", "Handle", "WideText"]]),
    "tools/FaultTest": ("the process as a whole", ["tools/main"]),
    "tools/commands/ReportCommandTest": (
        "sections of one page, which is read as a whole",
        ["tools/page/" + name for name in [
            "DifferenceSection", "LayerSections", "ModelPage", "ModelSections", "NetworkPicture",
            "RecordingSection"]]),
    "tools/commands/run/RunCommandTest": (
        "what the command prints in which order, and how it shares the work",
        ["tools/commands/run/RecordingGroup", "tools/commands/run/RunResults"]),
    "tools/shell/HelpPagesTest": ("what it takes from the parser", ["tools/shell/CommandLineParts"]),
    "tools/shell/ToolTest": ("what it hands to the parser", ["tools/shell/CommandLine"]),
}

def module_of(name):
    """Returns a source without its ending: headers and what they declare are one module."""
    return re.sub(r"(-inl)?\.(h|cpp)$", "", name)


def own_test(module):
    """Returns the test beside a module: some early files have names in lower case."""
    folder, _, name = re.sub(r"^os/(linux|posix|windows)/", "os/", module).rpartition("/")
    words = [word[:1].upper() + word[1:] for word in name.split("_")]
    return f"{folder}/{''.join(words)}Test"


def exists(test):
    return (ROOT / "tests" / (test + ".cpp")).exists()


def test_of(name):
    """Returns the test of a source, without its ending, or None."""
    module = module_of(name)
    if exists(own_test(module)):
        return own_test(module)
    return next((test for test, (_, modules) in TESTED_BY.items() if module in modules), None)


def programs_of(test):
    """Returns the programs that a test is a part of, as CMake knows them."""
    programs = []
    for lists in sorted((ROOT / "tests").rglob("CMakeLists.txt")):
        folder = lists.parent.relative_to(ROOT / "tests").as_posix()
        source = test + ".cpp"
        if folder != ".":
            if not source.startswith(folder + "/"):
                continue
            source = source[len(folder) + 1:]
        for program, sources in re.findall(r"mlnn_add\w*test\w*\(\s*(\w+)\s([^)]*)\)", lists.read_text()):
            if source in sources.split():
                programs.append(program)
    return programs
