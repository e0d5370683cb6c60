// The named bits of markup every page is assembled from, and the user's file that replaces them.
#include <cstring>

#include "config/config.h"
#include "http/http.h"
#include "os/os.h"

#define HTTP_DOCTYPE                                                                                         \
    "<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//EN\" "                                      \
    "\"http://www.w3.org/TR/html4/loose.dtd\">"

static const struct {
    const char *name;
    const char *text;
} _defaults[HTTP_FRAGMENT_COUNT] = {
    {"HEAD_BEGIN", HTTP_DOCTYPE "\r\n<head>\r\n<meta http-equiv=\"Content-Type\" content=\"text/html; "
                                "charset=utf-8\"><meta name=\"viewport\" content=\"width=512\"><meta "
                                "name=\"robots\" content=\"noindex, nofollow\"><title>"},
    {"HEAD_END", "</title>\r\n<link rel=\"stylesheet\" href=\"/main.css\" type=\"text/css\">\r\n<link "
                 "rel=\"shortcut icon\" href=\"/favicon.ico\" type=\"image/x-icon\">\r\n</head>\r\n<body>"},
    {"RESULT_TR", "<tr class=\""},
    {"RESULT_TR2", "\">"},
    {"RESULT_TD", "<td class=\""},
    {"RESULT_TD2", "\">"},
    {"RESULT_NOBR", "<span class=\"nobr\">"},
    {"RESULT_A", "<a href=\""},
    {"RESULT_A2", "\">"},
    {"RESULT_ICON", "<img class=\"icon\" src=\"/"},
    {"RESULT_ICON2", "\" alt=\"\">"},
    {"RESULT_A_END", "</a>"},
    {"RESULT_TD_END", "</td>"},
    {"RESULT_NOBR_END", "</span>"},
    {"RESULT_TR_END", "</tr>\r\n"},
    {"BODY_END", "</body>\r\n</html>\r\n"},
    {"ERROR1", "<html><meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\"><meta "
               "name=\"viewport\" content=\"width=512\"><head><title>"},
    {"ERROR2", "</title></head><body>"},
    {"ERROR3", "</body></html>"},
    {"PATH_INDEX_OF", "<tr><td colspan=\"3\"><p class=\"indexof\">"},
    {"PATH_INDEX_OF2", "</p></td></tr>\r\n"},
    {"PATH_UPDIR", "<tr><td class=\"updir\" colspan=\"3\"><a href=\"/"},
    {"PATH_UPDIR2", "\"><img class=\"icon\" src=\"/updir.gif\" alt=\"\">"},
    {"PATH_UPDIR3", "</a></td></tr>\r\n"},
    {"QUERY_NUMRESULTS", "<tr><td colspan=\"4\"><p class=\"numresults\">"},
    {"QUERY_NUMRESULTS2", "</p></td></tr>\r\n"},
    {"QUERY_PAGE", "<center><br><br>"},
    {"QUERY_PREV", "<span class=\"prevnext\"><a href=\"/"},
    {"QUERY_PREV2", "\">"},
    {"QUERY_PREV3", "</a></span>"},
    {"QUERY_NAV", "<span class=\"nav\">...</span>"},
    {"QUERY_CUR", "<span class=\"nav\"><b>"},
    {"QUERY_CUR2", "</b></span>"},
    {"QUERY_NUM", "<span class=\"nav\"><a class=num href=\"/"},
    {"QUERY_NUM2", "\">"},
    {"QUERY_NUM3", "</a></span>"},
    {"QUERY_NEXT", "<span class=\"prevnext\"><a href=\"/"},
    {"QUERY_NEXT2", "\">"},
    {"QUERY_NEXT3", "</a></span>"},
    {"QUERY_PAGE_END", "</center>\r\n"},
    {"TB_CENTER", "<center>\r\n"},
    {"TB_LOGO", "<p>"},
    {"TB_LOGO2", "<a href=\"/\"><img class=\"logo\" src=\"/Sablewatch.gif\" alt=\""},
    {"TB_LOGO3", "\"></a></p>\r\n"},
    {"TB_FORM", "<p>"},
    {"TB_FORM2",
     "<form id=\"searchform\" action=\"/\" method=\"get\"><input class=\"searchbox\" "
     "style=\"width:480px\" id=\"search\" name=\"search\" type=\"text\" onfocus=\"this.select()\" "
     "title=\""},
    {"TB_FORM3", "\" value=\""},
    {"TB_FORM4", "\">"},
    {"TB_FORM5", "<input type=\"hidden\" name=\"sort\" value=\""},
    {"TB_FORM6", "\" /><input type=\"hidden\" name=\"ascending\" value=\""},
    {"TB_FORM7", "\" />"},
    {"TB_FORM8", "</form></p>\r\n"},
    {"TB_TABLE", "<table cellspacing=\"0\" width=\"480px\">\r\n"},
    {"TH_TD", "<td class=\""},
    {"TH_TD2", "\">"},
    {"TH_TD3", "<a href=\"/"},
    {"TH_TD4", "\">"},
    {"TH_NOBR", "<span class=\"nobr\">"},
    {"TH_UPDOWN", "<img class=\"updown\" src=\"/"},
    {"TH_UPDOWN2", "\" alt=\"\">"},
    {"TH_NOBR_END", "</span>"},
    {"TH_A_END", "</a>"},
    {"TH_TD_END", "</td>"},
    {"THS_TR", "<tr>"},
    {"THS_LINE", "<tr><td colspan=\""},
    {"THS_LINE2", "\" class=\"lineshadow\" height=\"1\"></td></tr>\r\n"},
    {"THS_TR_END", "</tr>\r\n"},
    {"TE_END", "</table>\r\n</center>\r\n"},
};

const char *http_fragment_name(int id) {
    return id >= 0 && id < HTTP_FRAGMENT_COUNT ? _defaults[id].name : "";
}

void http_fragments_load(char **fragments, const char *file_name) {
    ini_t *ini = nullptr;
    if (file_name && *file_name) {
        os_file_t f = os_file_open(file_name, OS_OPEN_READ | OS_OPEN_SHARE_READ);
        if (f != OS_FILE_INVALID) {
            // A replacement file is a few KiB of markup; a larger one is not read past its first MiB.
            uint64_t size = os_file_size(f);
            size_t n = size > (1u << 20) ? (1u << 20) : (size_t) size;
            char *text = (char *) mem_alloc(n + 1);
            int64_t got = os_file_read(f, text, n);
            text[got > 0 ? got : 0] = 0;
            os_file_close(f);
            ini = ini_parse(text, "HTTP_SERVER_STRINGS");
            mem_free(text);
        }
    }
    for (int i = 0; i < HTTP_FRAGMENT_COUNT; i++) {
        const char *text = ini ? ini_get(ini, _defaults[i].name, _defaults[i].text) : _defaults[i].text;
        fragments[i] = mem_dup(text, strlen(text));
    }
    if (ini) {
        ini_free(ini);
    }
}

void http_fragments_free(char **fragments) {
    for (int i = 0; i < HTTP_FRAGMENT_COUNT; i++) {
        mem_free(fragments[i]);
        fragments[i] = nullptr;
    }
}
