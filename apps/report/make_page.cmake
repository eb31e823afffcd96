# Joins the parts of the report's page into a C++ source:
#   cmake -D FOLDER=apps/report -D RELIGHTING=hosts/python/velostrix/relighting -D SOURCE=report_page.cpp
#         -D THREE=three.min.js -D ORBIT=OrbitControls.js -D D3=d3.min.js -P make_page.cmake
file(READ ${FOLDER}/page.html page)
file(READ ${FOLDER}/notices.txt notices)
file(READ ${RELIGHTING}/style.css style)
file(READ ${RELIGHTING}/relight.html relight)
list(APPEND scripts ${RELIGHTING}/data.js ${RELIGHTING}/relight.js)
foreach(part IN ITEMS surface measure compare sections diagnosis main)
  list(APPEND scripts ${FOLDER}/${part}.js)
endforeach()
foreach(file IN LISTS scripts)
  file(READ ${file} text)
  string(APPEND script "${text}\n")
endforeach()
foreach(library IN ITEMS THREE ORBIT D3)
  file(READ ${${library}} ${library})
endforeach()

string(REPLACE "@STYLE@" "${style}" page "${page}")
string(REPLACE "@RELIGHT@" "${relight}" page "${page}")
string(REPLACE "@NOTICES@" "${notices}" page "${page}")
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
