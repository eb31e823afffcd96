# Joins the parts of the report's page into a C++ source:
#   cmake -D FOLDER=apps/report -D THREE=three.min.js -D ORBIT=OrbitControls.js -D D3=d3.min.js
#         -D SOURCE=report_page.cpp -P make_page.cmake
foreach(part IN ITEMS style.css relight.html notices.txt page.html)
  file(READ ${FOLDER}/${part} ${part})
endforeach()
foreach(part IN ITEMS data relight surface measure compare sections diagnosis main)
  file(READ ${FOLDER}/${part}.js text)
  string(APPEND script "${text}\n")
endforeach()
foreach(library IN ITEMS THREE ORBIT D3)
  file(READ ${${library}} ${library})
endforeach()

set(page "${page.html}")
string(REPLACE "@STYLE@" "${style.css}" page "${page}")
string(REPLACE "@RELIGHT@" "${relight.html}" page "${page}")
string(REPLACE "@NOTICES@" "${notices.txt}" page "${page}")
string(REPLACE "@SCRIPT@" "${script}" page "${page}")
foreach(library IN ITEMS THREE ORBIT D3)
  string(REPLACE "@${library}@" "${${library}}" page "${page}")
endforeach()
file(WRITE ${SOURCE} "// The page of reports, joined from apps/report.
#include \"apps/report.h\"

namespace velostrix::cli {
const std::string_view kReportPage = R\"velostrix(${page})velostrix\";
}  // namespace velostrix::cli
")
