# Flags of every target of ours: korvid_flags for everything, korvid_daemon_flags for what runs on the switch, which
# does without exceptions and RTTI.
add_library(korvid_flags INTERFACE)
target_compile_options(korvid_flags INTERFACE -Wall -Wextra -Wshadow -Wconversion -Werror)
target_include_directories(korvid_flags INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(korvid_flags INTERFACE _GNU_SOURCE)
if(KORVID_SANITIZE)
  target_compile_options(korvid_flags INTERFACE -fsanitize=${KORVID_SANITIZE} -fno-sanitize-recover=all
                                                -fno-omit-frame-pointer -g)
  target_link_options(korvid_flags INTERFACE -fsanitize=${KORVID_SANITIZE})
else()
  target_compile_options(korvid_flags INTERFACE -fstack-protector-strong)
  if(NOT CMAKE_BUILD_TYPE STREQUAL Debug)
    target_compile_options(korvid_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  target_link_options(korvid_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()

add_library(korvid_daemon_flags INTERFACE)
target_link_libraries(korvid_daemon_flags INTERFACE korvid_flags)
target_compile_options(korvid_daemon_flags INTERFACE -fno-exceptions -fno-rtti -fno-threadsafe-statics
                                                     -fvisibility=hidden -ffunction-sections -fdata-sections)

if(NOT KORVID_SANITIZE)
  # Nothing is thrown, so no frame is unwound but by a debugger, which has tables of its own: an eighth of the size.
  target_compile_options(korvid_daemon_flags INTERFACE -fno-asynchronous-unwind-tables -fno-unwind-tables)
endif()

# For the daemon's own files alone, linked privately: tests look at guarded data as they please.
add_library(korvid_lock_analysis INTERFACE)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  # Only the beta set checks the order in which locks are taken.
  target_compile_options(korvid_lock_analysis INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
