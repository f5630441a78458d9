# SPDX-License-Identifier: GPL-2.0
#
# UCFG_MODULE_SOURCES: the C sources of the objects Kbuild lists for
# drv_user_cfg.ko, less the driver frame that needs a kernel (of driver/
# only the CPU partition queries), for the builds that run the module's
# code in user space: the offline image tool and the host tests. UCFG_ROOT
# is the repository.
set(ucfg_kbuild "${UCFG_ROOT}/Kbuild")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${ucfg_kbuild}")
file(READ "${ucfg_kbuild}" ucfg_kbuild_text)
string(REGEX REPLACE "\\\\\n" " " ucfg_kbuild_text "${ucfg_kbuild_text}")
string(REGEX MATCHALL "drv_user_cfg-y[ \t]*[:+]?=[^\n]*" ucfg_lists "${ucfg_kbuild_text}")
string(REGEX MATCHALL "[a-z_]+/[a-z_0-9]+\\.o" ucfg_objs "${ucfg_lists}")
set(UCFG_MODULE_SOURCES "")
foreach(obj IN LISTS ucfg_objs)
  if(obj MATCHES "^driver/" AND NOT obj STREQUAL "driver/cpu_partition.o")
    continue()
  endif()
  string(REGEX REPLACE "\\.o$" ".c" src "${obj}")
  list(APPEND UCFG_MODULE_SOURCES "${UCFG_ROOT}/${src}")
endforeach()
if(NOT UCFG_MODULE_SOURCES)
  message(FATAL_ERROR "no drv_user_cfg-y objects found in ${ucfg_kbuild}")
endif()
set(UCFG_SHIM "${UCFG_ROOT}/tools/shim")
