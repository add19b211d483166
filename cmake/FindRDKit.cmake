# FindRDKit
# ---------
#
# Finds an RDKit C++ installation that ships without a CMake package configuration (such as
# Debian's librdkit-dev: headers in <prefix>/include/rdkit, libraries lib<prefix>/libRDKit*.so).
#
#   find_package(RDKit REQUIRED COMPONENTS GraphMol FileParsers SmilesParse)
#
# Components are RDKit library names without the "RDKit" prefix (GraphMol for libRDKitGraphMol).
# Without COMPONENTS, the libraries needed to read, embed and type molecules are looked for:
# RDGeneral RDGeometryLib GraphMol FileParsers SmilesParse SubstructMatch DistGeometry
# DistGeomHelpers ForceField ForceFieldHelpers PartialCharges.
#
# Imported targets:
#   RDKit::<Component>  one per component found (UNKNOWN library with RDKit's and Boost's headers)
#   RDKit::RDKit        all components found
#
# Result variables:
#   RDKit_FOUND, RDKit_<Component>_FOUND, RDKit_INCLUDE_DIRS, RDKit_LIBRARIES, RDKit_VERSION
#   (from the library file name, e.g. 2022.09.3, when it carries one)
#
# Cache variables: RDKit_INCLUDE_DIR, RDKit_BOOST_INCLUDE_DIR, RDKit_<Component>_LIBRARY.
# Set RDKit_ROOT to search a non-standard prefix first.
#
# RDKit's headers include Boost's, so Boost's header directory is found as well. Both are
# interface include directories of imported targets and therefore system include directories
# for their users: warnings from RDKit and Boost headers do not show in the users' builds.

set(_rdkit_default_components
    RDGeneral RDGeometryLib GraphMol FileParsers SmilesParse SubstructMatch DistGeometry
    DistGeomHelpers ForceField ForceFieldHelpers PartialCharges)
if(RDKit_FIND_COMPONENTS)
    set(_rdkit_components ${RDKit_FIND_COMPONENTS})
else()
    set(_rdkit_components ${_rdkit_default_components})
endif()

find_path(RDKit_INCLUDE_DIR GraphMol/GraphMol.h PATH_SUFFIXES rdkit include/rdkit
          DOC "Directory holding RDKit's GraphMol/ and RDGeneral/ headers")
find_path(RDKit_BOOST_INCLUDE_DIR boost/shared_ptr.hpp
          DOC "Directory holding the Boost headers RDKit's headers include")

set(RDKit_LIBRARIES "")
foreach(_component IN LISTS _rdkit_components)
    find_library(RDKit_${_component}_LIBRARY NAMES RDKit${_component} RDKit${_component}_static
                 PATH_SUFFIXES lib lib64 DOC "RDKit's ${_component} library")
    if(RDKit_${_component}_LIBRARY AND RDKit_INCLUDE_DIR)
        set(RDKit_${_component}_FOUND TRUE)
        list(APPEND RDKit_LIBRARIES ${RDKit_${_component}_LIBRARY})
    else()
        set(RDKit_${_component}_FOUND FALSE)
    endif()
    mark_as_advanced(RDKit_${_component}_LIBRARY)
endforeach()

# The version, from the real file name of a library such as libRDKitRDGeneral.so.1.2022.09.3.
set(RDKit_VERSION "")
foreach(_component IN LISTS _rdkit_components)
    if(RDKit_${_component}_FOUND AND NOT RDKit_VERSION)
        get_filename_component(_rdkit_real ${RDKit_${_component}_LIBRARY} REALPATH)
        if(_rdkit_real MATCHES "\\.so\\.[0-9]+\\.([0-9]+\\.[0-9]+\\.[0-9]+)$")
            set(RDKit_VERSION ${CMAKE_MATCH_1})
        endif()
    endif()
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(RDKit
    REQUIRED_VARS RDKit_INCLUDE_DIR RDKit_BOOST_INCLUDE_DIR RDKit_LIBRARIES
    VERSION_VAR RDKit_VERSION
    HANDLE_COMPONENTS)
mark_as_advanced(RDKit_INCLUDE_DIR RDKit_BOOST_INCLUDE_DIR)

if(RDKit_FOUND)
    set(RDKit_INCLUDE_DIRS ${RDKit_INCLUDE_DIR} ${RDKit_BOOST_INCLUDE_DIR})
    list(REMOVE_DUPLICATES RDKit_INCLUDE_DIRS)
    if(NOT TARGET RDKit::RDKit)
        add_library(RDKit::RDKit INTERFACE IMPORTED)
    endif()
    foreach(_component IN LISTS _rdkit_components)
        if(RDKit_${_component}_FOUND AND NOT TARGET RDKit::${_component})
            add_library(RDKit::${_component} UNKNOWN IMPORTED)
            set_target_properties(RDKit::${_component} PROPERTIES
                IMPORTED_LOCATION ${RDKit_${_component}_LIBRARY}
                INTERFACE_INCLUDE_DIRECTORIES "${RDKit_INCLUDE_DIRS}")
            set_property(TARGET RDKit::RDKit APPEND PROPERTY
                INTERFACE_LINK_LIBRARIES RDKit::${_component})
        endif()
    endforeach()
endif()

unset(_component)
unset(_rdkit_components)
unset(_rdkit_default_components)
unset(_rdkit_real)
