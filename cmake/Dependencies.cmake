# SPDX-License-Identifier: GPL-2.0-or-later
# What the programs need of other projects. All that is missing is named at once, by the names of Debian's packages.
if(QUILLET_STATIC)
    set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
endif()

# quillet_needs(NAME PACKAGE HEADER LIBRARY): sets NAME_INCLUDE and NAME_LIBRARY.
function(quillet_needs name package header library)
    find_path(${name}_INCLUDE ${header})
    find_library(${name}_LIBRARY ${library})
    if(NOT ${name}_INCLUDE OR NOT ${name}_LIBRARY)
        set_property(GLOBAL APPEND PROPERTY QUILLET_MISSING ${package})
    endif()
endfunction()

# quillet_needs_package(NAME PACKAGE): by a module or by the files of the project itself, which make targets.
macro(quillet_needs_package name package)
    find_package(${name} QUIET)
    if(NOT ${name}_FOUND)
        set_property(GLOBAL APPEND PROPERTY QUILLET_MISSING ${package})
    endif()
endmacro()

quillet_needs(NTFS3G ntfs-3g-dev ntfs-3g/volume.h ntfs-3g)
quillet_needs(XXHASH libxxhash-dev xxhash.h xxhash)
quillet_needs(ZSTD libzstd-dev zstd.h zstd)
quillet_needs_package(ZLIB zlib1g-dev)
quillet_needs_package(CLI11 libcli11-dev)

get_property(missing GLOBAL PROPERTY QUILLET_MISSING)
if(missing)
    list(JOIN missing " " missing)
    message(FATAL_ERROR "What quillet needs is missing. On Debian and Ubuntu:\n  apt-get install ${missing}\n"
                        "Elsewhere, install the counterparts of these packages.")
endif()
