# Install step: one page ocf_zor_AGENT(7) per installed OCF agent of provider
# "zor", from the agent's own "meta-data" output. Nothing to do without agents.
set(_root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
file(GLOB _agents LIST_DIRECTORIES false "${_root}/lib/ocf/resource.d/zor/*")
if(NOT _agents)
  return()
endif()
file(MAKE_DIRECTORY "${_root}/share/man/man7")
# Agents find their shell functions through OCF_ROOT, as under the cluster.
if(DEFINED ENV{OCF_ROOT})
  set(_ocf_root "$ENV{OCF_ROOT}")
else()
  set(_ocf_root /usr/lib/ocf)
endif()
foreach(_agent ${_agents})
  get_filename_component(_name "${_agent}" NAME)
  set(_xml "${_root}/share/man/man7/.ocf_zor_${_name}.xml")
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env OCF_ROOT=${_ocf_root} "${_agent}" meta-data
    OUTPUT_FILE "${_xml}" RESULT_VARIABLE _rc TIMEOUT 30)
  if(NOT _rc EQUAL 0)
    file(REMOVE "${_xml}")
    message(FATAL_ERROR "${_agent} meta-data failed (${_rc}): no manual page for it")
  endif()
  execute_process(
    COMMAND "${ZOR_PYTHON}" "${ZOR_MAN_SOURCE}/ocf2man.py" zor "${_name}" "${_xml}"
            "${_root}/share/man/man7/ocf_zor_${_name}.7" "${ZOR_VERSION}"
    RESULT_VARIABLE _rc)
  file(REMOVE "${_xml}")
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "ocf_zor_${_name}.7: the meta-data of ${_agent} could not be converted")
  endif()
  message(STATUS "Installing: ${_root}/share/man/man7/ocf_zor_${_name}.7")
endforeach()
