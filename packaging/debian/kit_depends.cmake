# Read by cpack before it packs: what the engine in the kit needs, which dpkg-shlibdeps does not see in an archive.
set(folder ${CPACK_TOPLEVEL_DIRECTORY}/kit_depends)
file(WRITE ${folder}/debian/control "Source: korvid\n\nPackage: korvid-kit-ndpi\nArchitecture: any\n")
execute_process(COMMAND dpkg-shlibdeps -O -S${folder} ${CPACK_KIT_ENGINE} WORKING_DIRECTORY ${folder}
                OUTPUT_VARIABLE depends ERROR_VARIABLE remarks RESULT_VARIABLE status OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "dpkg-shlibdeps: ${remarks}")
endif()
string(REGEX REPLACE "^shlibs:Depends=" "" depends "${depends}")
string(APPEND CPACK_DEBIAN_KIT_NDPI_PACKAGE_DEPENDS ", ${depends}")
