# Windows programs find their DLLs beside them: copy the compiler's runtime
# (mingw-w64) and Tcl's DLLs into bin/, and Tcl's script library to
# lib/tcl8.6, where Tcl looks for it relative to the executable (its
# compiled-in path names the machine it was built on). Installed the same way.

set(SF_WIN_RUNTIME_DLLS)
if(MINGW)
  foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
      OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${path}")
      find_file(path_${dll} ${dll} PATH_SUFFIXES bin lib NO_DEFAULT_PATH
        PATHS ${CMAKE_FIND_ROOT_PATH})
      set(path ${path_${dll}})
    endif()
    if(path AND EXISTS "${path}")
      list(APPEND SF_WIN_RUNTIME_DLLS ${path})
    else()
      message(WARNING "${dll} not found: programs will need it on their PATH")
    endif()
  endforeach()
endif()

# TCL_LIBRARY is <prefix>/lib/tcl86*.lib or libtcl86*.dll.a.
get_filename_component(SF_TCL_PREFIX ${TCL_LIBRARY} DIRECTORY)
get_filename_component(SF_TCL_PREFIX ${SF_TCL_PREFIX} DIRECTORY)
file(GLOB SF_TCL_DLLS ${SF_TCL_PREFIX}/bin/*.dll)
list(APPEND SF_WIN_RUNTIME_DLLS ${SF_TCL_DLLS})

file(COPY ${SF_WIN_RUNTIME_DLLS} DESTINATION ${CMAKE_BINARY_DIR}/bin)
install(FILES ${SF_WIN_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
# tcl8.6 holds the script library, tcl8 the modules (msgcat among them).
foreach(dir tcl8.6 tcl8)
  if(IS_DIRECTORY ${SF_TCL_PREFIX}/lib/${dir})
    file(COPY ${SF_TCL_PREFIX}/lib/${dir}/ DESTINATION ${CMAKE_BINARY_DIR}/lib/${dir})
    install(DIRECTORY ${SF_TCL_PREFIX}/lib/${dir}/ DESTINATION ${CMAKE_INSTALL_LIBDIR}/${dir})
  else()
    message(WARNING "Tcl's ${dir} not found under ${SF_TCL_PREFIX}/lib")
  endif()
endforeach()
