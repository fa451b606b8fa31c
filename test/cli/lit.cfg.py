# End-to-end tests of the romweld command line.
import os
import lit.formats

config.name = "romweld-cli"
config.test_format = lit.formats.ShTest(execute_external=False)
config.suffixes = [".test"]
config.test_source_root = os.path.dirname(__file__)
config.test_exec_root = config.exec_root
config.excludes = ["Inputs"]

# Tests see neither the user's home nor message-format settings of the
# calling shell.
config.environment["HOME"] = "/nonexistent"
for var in ("ZKC_ERR_FORMAT", "ZKC_WARN_FORMAT", "ZKC_MSG_FORMAT"):
    config.environment.pop(var, None)

config.substitutions.append(("%romweld", config.romweld))
config.substitutions.append(("%examples", config.examples_dir))
config.substitutions.append(("FileCheck", config.filecheck))
config.substitutions.append(("split-file", config.split_file))

# The comparisons with other hex tools run where those tools are installed.
import shutil
if shutil.which("srec_cat") and shutil.which("srec_cmp"):
    config.available_features.add("srecord")
if all(shutil.which(t) for t in ("objcopy", "as", "ld")):
    config.available_features.add("binutils")
