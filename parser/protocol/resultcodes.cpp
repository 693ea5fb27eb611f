// resultcodes.cpp - the one table of result-code names (include/zelrzp.h), shared by the
// sub-service, the reference manager and the tests. Writes no globals.
#include "zelrzp.h"

namespace {

struct RESULTNAME {
    long Code;
    const char *Name;
};

// clang-format off
#define RESULT_NAME(Code) {Code, #Code}
// clang-format on
const RESULTNAME ResultNames[] = {
    RESULT_NAME(RZP_SUCCESS),
    RESULT_NAME(RZP_FAILED),
    RESULT_NAME(RZP_COMPONENT_FILE_EMPTY),
    RESULT_NAME(RZP_OPCODE_NOT_SUPPORTED),
    RESULT_NAME(RZP_NO_RESULT_YET),
    RESULT_NAME(RZP_OUT_OF_MEMORY),
    RESULT_NAME(RZP_TRANSPORT_UNAVAILABLE),
    RESULT_NAME(RZP_ALREADY_INITIALIZED),
    RESULT_NAME(RZP_OPCODE_SUPPORTED),
    RESULT_NAME(RZP_NO_SEQUENCE_NUMBER),
    RESULT_NAME(RZP_NOTHING_PENDING),
    RESULT_NAME(RZP_COMPONENT_XML_EMPTY),
    RESULT_NAME(RZP_PARSER_BAD_XML),
    RESULT_NAME(RZP_PARSER_NOT_ONE_BUNDLE),
    RESULT_NAME(RZP_PARSER_NO_MORE_ITEMS),
    RESULT_NAME(RZP_PARSER_ERRATA_UNSUPPORTED),
    RESULT_NAME(RZP_PARSER_NO_BUNDLE),
    RESULT_NAME(RZP_PARSER_BAD_BUNDLE),
    RESULT_NAME(XML_NO_MEMORY),
    RESULT_NAME(XML_OPEN_FAILED),
    RESULT_NAME(XML_PARSE_FAILED),
    RESULT_NAME(XML_NO_PACKAGES),
};
#undef RESULT_NAME

} // namespace

const char *RZPResultName(long Code)
{
    for (const RESULTNAME &Entry : ResultNames)
        if (Entry.Code == Code)
            return Entry.Name;
    return "unknown";
}
