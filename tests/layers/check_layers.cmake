# Each case configures project/ and expects success, or failure with a message.
function(expect name outcome pattern)
  set(bin ${WORK}/${name})
  file(REMOVE_RECURSE ${bin})
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${FIXTURE} -B ${bin} -G ${GENERATOR} -DTAVIT_CMAKE=${TAVIT_CMAKE} ${ARGN}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  string(REGEX REPLACE "[ \n]+" " " text "${out}${err}")
  if(outcome STREQUAL "fails" AND rc EQUAL 0)
    message(SEND_ERROR "${name}: configuration succeeded, expected it to fail with \"${pattern}\"")
  elseif(outcome STREQUAL "passes" AND NOT rc EQUAL 0)
    message(SEND_ERROR "${name}: configuration failed:\n${out}${err}")
  elseif(NOT text MATCHES "${pattern}")
    message(SEND_ERROR "${name}: output lacks \"${pattern}\":\n${out}${err}")
  else()
    message(STATUS "${name}: ok")
  endif()
endfunction()

# A module on a higher layer may use a lower one.
expect(downward passes "Configuring done")
# The other way round stops configuration and names both modules.
expect(upward fails "module low \\(layer 0\\) depends on module high \\(layer 1\\): tavit_low links tavit_high"
  -DLOW_DEPS=tavit_high)
# The sanitized twin carries its module's layer.
expect(upward_san fails "tavit_low_san links tavit_high_san" -DLOW_SAN_DEPS=tavit_high_san)
# A listed exception lets the link through; an exception that is not needed
# is reported.
expect(excepted passes "Configuring done" -DLOW_DEPS=tavit_high "-DEXCEPTIONS=low -> high")
expect(stale_exception passes "\"low -> high\" is no longer needed" "-DEXCEPTIONS=low -> high")
# A module directory that no layer names, and a link to a module library that
# does not exist, stop configuration too.
expect(unknown_module fails "Module src/spare has no layer" -DDROP_SPARE=ON)
expect(unknown_library fails "tavit_low \\(module low\\) links tavit_nowhere, which no module defines"
  -DLOW_DEPS=tavit_nowhere)
