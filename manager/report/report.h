// report.h - `zelrzp-manager report`: the support matrix and the lint findings of a bundle
// directory as one self-contained HTML page, made from a mustache template.
#pragma once

// The entry of `zelrzp-manager report` (argv[0] is "report"). Exit status: the matrix's
// (0, 1 or 3), 2 usage, 3 also when the page cannot be written.
int ReportMain(int argc, char **argv);

// The page's template (report.mustache, compiled in by report.cmake).
extern const char ReportTemplate[];
