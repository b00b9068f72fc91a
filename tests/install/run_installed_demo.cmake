# Script mode: install, then run the installed kestrel-demo. It loads its
# plugin through "$QX_INSTALL_ROOT/...", so this checks that the installation
# root and the plugin's place agree under a real prefix.
include("${CMAKE_CURRENT_LIST_DIR}/install_prefix.cmake")

install_kestrel()
run_program("${WORK_DIR}/prefix/${BINDIR}/kestrel-demo")
