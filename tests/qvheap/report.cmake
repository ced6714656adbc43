# qvheap report and qvheap diff, on files made by the tests and on a program that writes one about itself,
# built with and without what a report can find.
if(NOT TARGET qvheap_report)
  return()
endif()
# The subjects are what they describe: no sanitizer's frame is in their stacks.
function(qvheap_report_subject name)  # name option...
  add_executable(qvheap_report_subject_${name} report_subject.cpp)
  target_link_libraries(qvheap_report_subject_${name} PRIVATE qvrt_warnings)
  target_compile_options(qvheap_report_subject_${name} PRIVATE -O2 ${ARGN} -fno-sanitize=all)
  target_link_options(qvheap_report_subject_${name} PRIVATE -fno-sanitize=all)
endfunction()
qvheap_report_subject(debug -g)
qvheap_report_subject(plain -g0)
qvheap_report_subject(anonymous -g)
target_link_options(qvheap_report_subject_anonymous PRIVATE -Wl,--build-id=none)
foreach(name debug plain)
  target_link_options(qvheap_report_subject_${name} PRIVATE -Wl,--build-id)
endforeach()

qvrt_test_program(qvrt_test_qvheap_report report_test.cpp report_input_test.cpp report_symbols_test.cpp
  report_files.cpp shell.cpp)
target_compile_definitions(qvrt_test_qvheap_report PRIVATE
  QVHEAP="$<TARGET_FILE:qvheap>" SUBJECT_FOLDER="$<TARGET_FILE_DIR:qvheap_report_subject_debug>")
add_dependencies(qvrt_test_qvheap_report qvheap qvheap_report
  qvheap_report_subject_debug qvheap_report_subject_plain qvheap_report_subject_anonymous)
if(NOT QVRT_SANITIZE)
  target_compile_definitions(qvrt_test_qvheap_report PRIVATE QVHEAP_COLLECTS)
  add_dependencies(qvrt_test_qvheap_report qvheap_collector)
endif()
