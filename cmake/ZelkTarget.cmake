# Compiler and linker settings of every target of this project, and of none that uses it.
function(zelk_target_settings target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${ZELK_WERROR}>:-Werror>
    # Hardening as Debian builds its packages.
    -fstack-protector-strong -fstack-clash-protection -fcf-protection
    -Wformat -Werror=format-security
    # Assertions print file names: keep them relative to the source tree.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  if(NOT ZELK_SANITIZE)
    # The fortified functions need optimisation and hide what the sanitizers would see.
    target_compile_options(${target} PRIVATE
      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
  if(ZELK_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    # Tests that look for it know the macro, which clang leaves out. Its check of objects' types asks
    # the kernel about addresses, which would be among the calls that tests have fail.
    target_compile_options(${target} PRIVATE
      $<$<CXX_COMPILER_ID:Clang>:-D__SANITIZE_ADDRESS__=1 -fno-sanitize=vptr>)
  endif()
  if(ZELK_FUZZ)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(ZELK_COVERAGE)
    # A thread that meets another in a static's first use is no branch of the source.
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic
      -fno-threadsafe-statics)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()
