// The session without sockets: lines go in through the line handler, replies are read from the
// connection's send queue. Paths, the welcome text and LIST's argument are tables. Last, the whole
// execution table through the SABLEWATCH verb of a server on the loopback address.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "config/config.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "net/net.h"
#include "net/served_index.h"
#include "os/os.h"
#include "os/os_main.h"
#include "stp/stp.h"
#include "stp/stp_internal.h"

namespace {

std::string text_of(const str_t *s) {
    return std::string(s->ptr ? s->ptr : "", (size_t) s->len);
}

TEST(StpPaths, ResolveStaysInsideTheTree) {
    const std::string S(1, OS_SEP);
    struct {
        const char *cwd, *arg;
        std::string want;
    } cases[] = {
        {"", "", ""},
        {"", "a", "a"},
        {"a", "", "a"},
        {"a", "b", "a" + S + "b"},
        {"a", "/b", "b"},
        {"a", "/", ""},
        {"a", "b/", "a" + S + "b"},
        {"a", "./b/./c", "a" + S + "b" + S + "c"},
        {"a", "b//c", "a" + S + "b" + S + "c"},
        {"a", "..", ""},
        {"", "..", ""},
        {"a", "../../../..", ""},
        {"a", "../../etc/passwd", "etc" + S + "passwd"},
        {"a", "/../x", "x"},
        {"a", "b/../c", "a" + S + "c"},
        {"a", "...", "a" + S + "..."},
        {"a", "..b", "a" + S + "..b"},
    };
    for (auto &k : cases) {
        str_t cwd, out;
        str_init(&cwd);
        str_init(&out);
        // The session's folder is in index form: the platform's separator.
        for (const char *p = k.cwd; *p; p++) {
            str_cat_char(&cwd, *p == '/' ? OS_SEP : *p);
        }
        stp_path_resolve(cwd.ptr, k.arg, &out);
        EXPECT_EQ(text_of(&out), k.want) << "cwd " << k.cwd << " arg " << k.arg;
        str_t shown;
        str_init(&shown);
        stp_path_display(out.ptr, &shown);
        std::string want_shown = "/" + k.want;
        for (char &c : want_shown) {
            c = c == OS_SEP ? '/' : c;
        }
        EXPECT_EQ(text_of(&shown), want_shown);
        str_kill(&shown);
        str_kill(&out);
        str_kill(&cwd);
    }
}

TEST(StpText, WelcomeLinesAndEscapes) {
    struct {
        const char *setting;
        const char *want;
    } cases[] = {
        {"", "220 Welcome to Sablewatch STP/FTP\r\n"},
        {"Hi", "220 Hi\r\n"},
        {"a%nb%nc", "220-a\r\n220-b\r\n220 c\r\n"},
        {"v%v", "220 v1.4.1.1031 (ARM)\r\n"},
        {"100%% sure%", "220 100% sure%\r\n"},
        {"no\r\nbreak", "220 nobreak\r\n"},
        {"%n", "220-\r\n220 \r\n"},
    };
    for (auto &k : cases) {
        str_t out;
        str_init(&out);
        stp_welcome_text(k.setting, &out);
        EXPECT_EQ(text_of(&out), k.want) << k.setting;
        str_kill(&out);
    }
}

TEST(StpText, ListArgumentDropsOptionsAndQuotes) {
    struct {
        const char *arg, *want;
    } cases[] = {
        {"", ""},
        {"-la", ""},
        {"-la sub", "sub"},
        {"sub -a", "sub"},
        {"\"my folder\"", "my folder"},
        {"my folder", "myfolder"},
        {"my-file", "my"},
        {"\"a-b c\" d", "a cd"},
    };
    for (auto &k : cases) {
        str_t out;
        str_init(&out);
        stp_list_argument(k.arg, &out);
        EXPECT_EQ(text_of(&out), k.want) << k.arg;
        str_kill(&out);
    }
}

// ---- the session's state machine -------------------------------------------------------------------------

uint8_t logging_off = 0;
char empty_name[1] = "";
char *log_name = empty_name;
int32_t zero = 0;

struct session_fixture : ::testing::Test {
    net_proto_t proto = {};
    net_server_t server = {};
    net_conn_t conn = {};
    char *saved_user = nullptr, *saved_pass = nullptr;
    uint8_t saved_allow_port = 0, saved_check_ip = 0;
    char user_buf[16] = "", pass_buf[16] = "";

    void SetUp() override {
        debug_init();
        proto.name = "STP";
        proto.max_line = 1 << 16;
        proto.send_queue_cap = 1 << 20;
        proto.logging_enabled = &logging_off;
        proto.log_file_name = &log_name;
        proto.log_max_size = &zero;
        proto.log_delta_size = &zero;
        proto.line = stp_session_line;
        server.proto = &proto;
        conn.server = &server;
        conn.socket = OS_SOCKET_NONE;
        os_net_addr_parse("127.0.0.1", OS_NET_INET, 40000, &conn.peer);
        saved_user = stp_server_username;
        saved_pass = stp_server_password;
        saved_allow_port = ftp_allow_port;
        saved_check_ip = ftp_check_data_connection_ip;
        stp_server_username = user_buf;
        stp_server_password = pass_buf;
        stp_login_delay_ms = 0;
        stp_session_open(&conn);
        replies();
    }
    void TearDown() override {
        stp_session_close(&conn);
        net_conn_free_buffers(&conn);
        stp_server_username = saved_user;
        stp_server_password = saved_pass;
        ftp_allow_port = saved_allow_port;
        ftp_check_data_connection_ip = saved_check_ip;
        stp_login_delay_ms = 1000;
    }
    stp_session_t *session() { return (stp_session_t *) conn.session; }
    // Everything queued since the last call.
    std::string replies() {
        std::string out;
        for (net_send_block_t *b = conn.send_head; b; b = b->next) {
            out.append(b->bytes, b->len);
        }
        net_conn_free_buffers(&conn);
        conn.send_head = conn.send_tail = nullptr;
        return out;
    }
    std::string say(const std::string &line) {
        std::string copy = line;
        stp_session_line(&conn, copy.data(), (uint32_t) copy.size());
        return replies();
    }
    void login() { ASSERT_EQ(say("USER x"), "230 Logged on.\r\n"); }
};

TEST_F(session_fixture, NothingButLoginBeforeLogin) {
    for (const char *verb :
         {"FEAT", "SYST", "PWD", "CWD /", "LIST", "RETR x", "SABLEWATCH query", "PASV", "SIZE a"}) {
        EXPECT_EQ(say(verb), "530 Not logged on.\r\n") << verb;
    }
    EXPECT_EQ(say("NOOP"), "200 OK.\r\n");
    EXPECT_EQ(say("PASS x"), "530 Not logged on.\r\n");
    EXPECT_EQ(say("BOGUS"), "500 Syntax error, command unrecognized.\r\n");
}

TEST_F(session_fixture, LoginWithUserAndPassword) {
    strcpy(user_buf, "alice");
    strcpy(pass_buf, "s3cret");
    // A wrong name gets the same prompt as the right one, and can't log on.
    EXPECT_EQ(say("USER bob"), "331 Password required for bob\r\n");
    EXPECT_EQ(say("PASS s3cret"), "530 Login or password incorrect!\r\n");
    EXPECT_EQ(say("USER alice"), "331 Password required for alice\r\n");
    EXPECT_EQ(say("PASS wrong"), "530 Login or password incorrect!\r\n");
    EXPECT_EQ(say("FEAT"), "530 Not logged on.\r\n");
    EXPECT_EQ(say("PASS S3CRET"), "530 Login or password incorrect!\r\n");
    EXPECT_EQ(say("PASS s3cret"), "230 Logged on.\r\n");
    EXPECT_EQ(say("PASS s3cret"), "503 Invalid sequence of commands.\r\n");
    EXPECT_EQ(say("syst"), "215 UNIX emulated by Sablewatch\r\n");
}

TEST_F(session_fixture, RepliesOfTheSimpleVerbs) {
    login();
    struct {
        const char *line, *reply;
    } cases[] = {
        {"FEAT", "211-Features:\r\n MDTM\r\n REST STREAM\r\n SIZE\r\n MLST type*;size*;modify*;\r\n MLSD\r\n "
                 "UTF8\r\n "
                 "SABLEWATCH\r\n211 End\r\n"},
        {"PWD", "257 \"/\" is current directory.\r\n"},
        {"CDUP", "250 CDUP successful. \"/\" is current directory.\r\n"},
        {"REST 100", "350 Restarting at 100.\r\n"},
        {"REST 18446744073709551615", "350 Restarting at 18446744073709551615.\r\n"},
        {"OPTS utf8 off", "200 UTF8 mode disabled.\r\n"},
        {"OPTS UTF8 ON", "200 UTF8 mode enabled.\r\n"},
        {"OPTS MLST type", "501 Invalid option.\r\n"},
        {"MODE S", "504 Mode S not implemented.\r\n"},
        {"MODE x", "501 Invalid mode x.\r\n"},
        {"STRU F", "504 File structure F not implemented.\r\n"},
        {"STRU Q", "501 Invalid file structure Q.\r\n"},
        {"TYPE I", "200 Type set to Image (I).\r\n"},
        {"TYPE a", "200 Type set to ASCII (A).\r\n"},
        {"TYPE E", "504 Type E not implemented.\r\n"},
        {"TYPE L 8", "500 Type L 8 not supported.\r\n"},
        {"MLST", "250-Listing /\r\n type=dir; /\r\n250 End.\r\n"},
        {"CWD /", "250 CWD successful. \"/\" is current directory.\r\n"},
        // Without an index nothing else exists.
        {"CWD nowhere", "550 Directory not found.\r\n"},
        {"SIZE a.txt", "550 File not found.\r\n"},
        {"MDTM a.txt", "550 File not found.\r\n"},
        {"MLST a.txt", "550 File or Directory not found.\r\n"},
        {"RETR ../../etc/passwd", "550 File not found.\r\n"},
        {"LIST", "550 Directory not found.\r\n"},
        {"  NOOP", "500 Syntax error, command unrecognized.\r\n"},
        {"NOOP\t  extra", "200 OK.\r\n"},
    };
    for (auto &k : cases) {
        EXPECT_EQ(say(k.line), k.reply) << k.line;
    }
    EXPECT_EQ(say("QUIT"), "221 Goodbye.\r\n");
    EXPECT_TRUE(session()->quit);
}

TEST_F(session_fixture, SablewatchKeywordsEchoWhatTheyStored) {
    login();
    struct {
        const char *line, *reply;
    } cases[] = {
        {"SABLEWATCH case 1", "200 Case set to (1).\r\n"},
        {"SABLEWATCH WHOLE_WORD 0x10", "200 Whole word set to (1).\r\n"},
        {"SABLEWATCH path 0", "200 Path set to (0).\r\n"},
        {"SABLEWATCH diacritics 7", "200 Diacritics set to (1).\r\n"},
        {"SABLEWATCH regex", "200 Regex set to (0).\r\n"},
        {"SABLEWATCH hide_empty_search_results 1", "200 Hide empty search results set to (1).\r\n"},
        {"SABLEWATCH search   a b  c ", "200 Search set to (a b  c ).\r\n"},
        {"SABLEWATCH filter_search ext:txt", "200 Filter search set to (ext:txt).\r\n"},
        {"SABLEWATCH filter_case 1", "200 Filter case set to (1).\r\n"},
        {"SABLEWATCH filter_diacritics 1", "200 Filter diactritics set to (1).\r\n"},
        {"SABLEWATCH filter_path 1", "200 Filter path set to (1).\r\n"},
        {"SABLEWATCH filter_regex 1", "200 Filter regex set to (1).\r\n"},
        {"SABLEWATCH filter_whole_word 1", "200 Filter whole word set to (1).\r\n"},
        {"SABLEWATCH filter_path 0", "200 Filter path set to (0).\r\n"},
        {"SABLEWATCH sort SIZE_DESCENDING", "200 Sort set to (size_descending).\r\n"},
        {"SABLEWATCH sort size", "500 Unknown sort type.\r\n"},
        {"SABLEWATCH offset 10", "200 Offset set to (10).\r\n"},
        {"SABLEWATCH count 0xff", "200 Count set to (255).\r\n"},
        {"SABLEWATCH size_column 2", "200 Size column set to (1).\r\n"},
        {"SABLEWATCH attributes_column 1", "200 Attributes column set to (1).\r\n"},
        {"SABLEWATCH date_modified_column 1", "200 Date modified column set to (1).\r\n"},
        {"SABLEWATCH date_created_column 1", "200 Date created column set to (1).\r\n"},
        {"SABLEWATCH path_column 1", "200 Path column set to (1).\r\n"},
        {"SABLEWATCH file_list_filename_column 1", "200 File list filename column set to (1).\r\n"},
        {"SABLEWATCH date_recently_changed_column 1", "200 Date recently changed column set to (1).\r\n"},
        {"SABLEWATCH frobnicate 1", "500 Unknown Sablewatch command.\r\n"},
        {"SABLEWATCH", "500 Unknown Sablewatch command.\r\n"},
    };
    for (auto &k : cases) {
        EXPECT_EQ(say(k.line), k.reply) << k.line;
    }
    stp_session_t *s = session();
    EXPECT_TRUE(s->now.match_case && s->now.match_whole_word && !s->now.match_path &&
                s->now.match_diacritics);
    EXPECT_EQ(s->now.filter_flags, 1u | 2u | 8u | 16u);
    EXPECT_EQ(s->now.sort, 5);
    EXPECT_EQ(s->offset, 10u);
    EXPECT_EQ(s->count, 255u);
}

TEST_F(session_fixture, DataConnectionRules) {
    login();
    ftp_allow_port = 1;
    ftp_check_data_connection_ip = 1;
    EXPECT_EQ(say("PORT 127,0,0,1,4,1"), "200 Port command successful.\r\n");
    EXPECT_EQ(session()->data_mode, STP_DATA_PORT);
    // A third address is refused while the check is on, and accepted without it.
    EXPECT_EQ(say("PORT 10,1,2,3,4,1"), "500 Failed to connect to IP.\r\n");
    EXPECT_EQ(say("EPRT |1|10.1.2.3|1025|"), "500 Failed to connect to IP.\r\n");
    ftp_check_data_connection_ip = 0;
    EXPECT_EQ(say("PORT 10,1,2,3,4,1"), "200 Port command successful.\r\n");
    EXPECT_EQ(say("EPRT |2|::1|1025|"), "200 Port command successful.\r\n");
    EXPECT_EQ(session()->data_mode, STP_DATA_EPRT);
    EXPECT_EQ(say("EPRT |3|x|1|"),
              "522 Extended Port Failure - unknown network protocol. Supported protocols: (1,2)\r\n");
    for (const char *bad : {"PORT 1,2,3", "PORT 256,0,0,1,1,1", "PORT a,b,c,d,e,f", "EPRT |1|nothost|1|",
                            "EPRT |1|1.2.3.4|70000|", "EPRT"}) {
        EXPECT_EQ(say(bad), "501 Syntax error in parameters or arguments.\r\n") << bad;
    }
    ftp_allow_port = 0;
    EXPECT_EQ(say("PORT 127,0,0,1,4,1"), "501 Invalid option.\r\n");
    EXPECT_EQ(say("EPRT |1|127.0.0.1|1025|"), "501 Invalid option.\r\n");
    session()->ipv6 = true;
    EXPECT_EQ(say("PASV"), "500 PASV is not available when using IPv6, please use IPv4 or EPSV.\r\n");
    session()->ipv6 = false;
    // A transfer with no data mode at all is out of sequence.
    session()->data_mode = STP_DATA_NONE;
    EXPECT_EQ(say("MLST"), "250-Listing /\r\n type=dir; /\r\n250 End.\r\n");
}

TEST_F(session_fixture, DuringATransferEveryCommandIsOutOfSequence) {
    login();
    session()->transfer = STP_TRANSFER_LIST;
    for (const char *verb : {"NOOP", "QUIT", "ABOR", "USER x"}) {
        EXPECT_EQ(say(verb), "503 Invalid sequence of commands.\r\n") << verb;
    }
    EXPECT_FALSE(session()->quit);
    session()->transfer = STP_TRANSFER_NONE;
}

TEST_F(session_fixture, NulAndInvalidUtf8AreJustBytes) {
    login();
    std::string line = std::string("CWD a\0b", 7);
    EXPECT_EQ(say(line), "550 Directory not found.\r\n");
    EXPECT_EQ(say("SABLEWATCH search \xff\xfe\xc0"), "200 Search set to (\xff\xfe\xc0).\r\n");
    EXPECT_EQ(say("\xff\xff"), "500 Syntax error, command unrecognized.\r\n");
}

// ---- SABLEWATCH against the in-process search ------------------------------------------------------------

// Every row of the execution table goes through the verb on the reference index: under name order and
// under a sort that turns with the row, whole and as a page, and once more with one more flag on. The
// server runs on the loopback address as it does in the program, and a client in the test talks to it
// over a socket. The count, the kinds, the path column and the names must be the in-process search's,
// record by record, and each answer is computed anew or re-used exactly as the session decides.
struct StpAgreeTest : served_index_test {
    char *saved_bindings = nullptr, *saved_user = nullptr, *saved_pass = nullptr;
    int32_t saved_port = 0;
    uint8_t saved_allow = 0;
    char no_text[1] = "";
    os_socket_t client = OS_SOCKET_NONE;
    std::string pending; // read but not yet handed out

    void SetUp() override {
        serve_begin("SABLEWATCH_STP_TEST");
        saved_bindings = stp_server_bindings, saved_port = stp_server_port;
        saved_user = stp_server_username, saved_pass = stp_server_password, saved_allow = allow_stp_server;
        stp_server_bindings = bindings, stp_server_port = 0, allow_stp_server = 1;
        stp_server_username = stp_server_password = no_text;
        _stp_server_start(nullptr);
        ASSERT_NE(stp_server, nullptr);
        client = loop_connect(loop_port_of(stp_server));
        ASSERT_EQ(replies(1).substr(0, 4), "220 ");
        ASSERT_EQ(say({"USER x", "SABLEWATCH path_column 1"}),
                  "230 Logged on.\r\n200 Path column set to (1).\r\n");
    }
    void TearDown() override {
        if (client != OS_SOCKET_NONE) {
            os_net_close(client);
        }
        if (stp_server) {
            loop_pump_until([] { return stp_server->connection_count == 0; });
            _stp_server_stop();
        }
        stp_server_bindings = saved_bindings, stp_server_port = saved_port;
        stp_server_username = saved_user, stp_server_password = saved_pass, allow_stp_server = saved_allow;
        serve_end();
    }

    // The next n replies, each up to its final line ("NNN " at the start of a line).
    std::string replies(size_t n) {
        size_t end = 0;
        auto whole = [&] {
            size_t found = 0;
            end = 0;
            for (size_t at = 0; found < n;) {
                size_t eol = pending.find("\r\n", at);
                if (eol == std::string::npos) {
                    return false;
                }
                if (eol - at >= 4 && isdigit((unsigned char) pending[at]) && pending[at + 3] == ' ') {
                    found++;
                }
                at = end = eol + 2;
            }
            return true;
        };
        bool open = true;
        EXPECT_TRUE(loop_pump_until([&] { return (open = loop_drain(client, &pending)) && whole(); }))
            << (open ? "no whole reply in: " : "closed after: ") << pending.substr(0, 400);
        std::string out = pending.substr(0, end);
        pending.erase(0, end);
        return out;
    }
    // Sends the lines in one write and returns their replies.
    std::string say(const std::vector<std::string> &lines) {
        std::string text;
        for (const std::string &l : lines) {
            text += l + "\r\n";
        }
        loop_send_all(client, text);
        return replies(lines.size());
    }
    std::string query() { return say({"SABLEWATCH query"}); }

    // Empty when the answers are equal, else the first line where they part and the line counts, so
    // that a failure names its row instead of printing two whole answers.
    static std::string difference(const std::string &got, const std::string &want) {
        if (got == want) {
            return "";
        }
        size_t at = 0, line = 1;
        while (at < got.size() && at < want.size() && got[at] == want[at]) {
            line += got[at++] == '\n';
        }
        auto line_at = [](const std::string &s, size_t from) {
            size_t start = s.rfind('\n', from ? from - 1 : 0);
            start = start == std::string::npos || from == 0 ? 0 : start + 1;
            return s.substr(start, s.find('\r', start) - start);
        };
        return "line " + std::to_string(line) + ": got \"" + line_at(got, at) + "\" want \"" +
               line_at(want, at) + "\" (" + std::to_string(std::count(got.begin(), got.end(), '\n')) +
               " and " + std::to_string(std::count(want.begin(), want.end(), '\n')) + " lines)";
    }

    // The answer the verb must give, from an in-process query and the reference's own paths.
    std::string expected(const exec_case_t &c, uint32_t bits, int sort, uint32_t offset, uint32_t count) {
        size_t total;
        std::vector<db_ref_t> window = answer(c.search, sort, bits, offset, count, &total);
        std::string out = "200-Query results\r\n RESULT_COUNT " + std::to_string(total) + "\r\n";
        for (db_ref_t r : window) {
            out += " PATH " + folder_path(r) + "\r\n";
            out += std::string(record(r).folder ? " FOLDER " : " FILE ") + record(r).name + "\r\n";
        }
        return out + "200 End.\r\n";
    }

    // The lines that set the five search flags to bits.
    static std::vector<std::string> flags(uint32_t bits) {
        static const struct {
            uint32_t bit;
            const char *keyword;
        } names[] = {{SEARCH_CASE, "case"},
                     {SEARCH_WHOLEWORD, "whole_word"},
                     {SEARCH_PATH, "path"},
                     {SEARCH_DIACRITICS, "diacritics"},
                     {SEARCH_REGEX, "regex"}};
        std::vector<std::string> out;
        for (auto &n : names) {
            out.push_back(std::string("SABLEWATCH ") + n.keyword + ((bits & n.bit) ? " 1" : " 0"));
        }
        return out;
    }
};
TEST_F(StpAgreeTest, EveryRowOfTheTableAgreesUnderSortsPagesAndFlags) {
    static const struct {
        const char *name;
        int sort;
    } sorts[] = {{"name_ascending", 0},
                 {"name_descending", 1},
                 {"path_ascending", 2},
                 {"path_descending", 3},
                 {"size_ascending", 4},
                 {"size_descending", 5},
                 {"extension_ascending", 6},
                 {"extension_descending", 7},
                 {"date_created_ascending", 10},
                 {"date_created_descending", 11},
                 {"date_modified_ascending", 12},
                 {"date_modified_descending", 13},
                 {"attributes_ascending", 14},
                 {"attributes_descending", 15},
                 {"file_list_filename_ascending", 16},
                 {"file_list_filename_descending", 17},
                 {"date_recently_changed_ascending", 20},
                 {"date_recently_changed_descending", 21}};
    static const uint32_t extra[] = {SEARCH_CASE, SEARCH_WHOLEWORD, SEARCH_DIACRITICS, SEARCH_PATH,
                                     SEARCH_REGEX};
    const size_t n_sorts = sizeof sorts / sizeof *sorts;
    std::vector<exec_case_t> table = exec_table();
    size_t nonempty = 0;
    for (size_t i = 0; i < table.size(); i++) {
        const exec_case_t &c = table[i];
        const auto &turn = sorts[i % n_sorts];
        struct {
            uint32_t bits;
            const char *sort_name;
            int sort;
            uint32_t offset, count;
        } runs[] = {
            {c.bits, "name_ascending", 0, 0, UINT32_MAX},
            // The same search in another order: the session sorts what it has.
            {c.bits, turn.name, turn.sort, 0, UINT32_MAX},
            // A page of it: no new search at all.
            {c.bits, turn.name, turn.sort, (uint32_t) (i % 11), 7},
            {c.bits | extra[i % 5], sorts[(i * 7 + 3) % n_sorts].name, sorts[(i * 7 + 3) % n_sorts].sort, 0,
             UINT32_MAX},
        };
        ASSERT_EQ(say({"SABLEWATCH search " + c.search}), "200 Search set to (" + c.search + ").\r\n");
        for (auto &r : runs) {
            SCOPED_TRACE(c.search + " bits " + std::to_string(r.bits) + " " + r.sort_name + " offset " +
                         std::to_string(r.offset));
            std::vector<std::string> lines = flags(r.bits);
            lines.push_back(std::string("SABLEWATCH sort ") + r.sort_name);
            lines.push_back("SABLEWATCH offset " + std::to_string(r.offset));
            lines.push_back("SABLEWATCH count " + std::to_string(r.count));
            std::string set = say(lines);
            ASSERT_EQ(std::count(set.begin(), set.end(), '\n'), (long) lines.size()) << set;
            ASSERT_EQ(set.find("500"), std::string::npos) << set;
            std::string want = expected(c, r.bits, r.sort, r.offset, r.count);
            ASSERT_EQ(difference(query(), want), "");
            nonempty += want.find(" FILE ") != std::string::npos;
        }
    }
    // The table is no table of empty answers.
    EXPECT_GT(nonempty, table.size() * 2);
}

TEST_F(StpAgreeTest, HiddenEmptySearchAndTheFilterNarrowTheAnswer) {
    say({"SABLEWATCH search ", "SABLEWATCH hide_empty_search_results 1"});
    EXPECT_EQ(query(), "200-Query results\r\n RESULT_COUNT 0\r\n200 End.\r\n");
    // The filter search is a second condition on the same records.
    say({"SABLEWATCH hide_empty_search_results 0", "SABLEWATCH search readme",
         "SABLEWATCH filter_search ext:txt", "SABLEWATCH count 4294967295"});
    exec_case_t both = {"readme ext:txt", 0, nullptr};
    std::string want = expected(both, 0, 0, 0, UINT32_MAX);
    EXPECT_EQ(difference(query(), want), "");
    EXPECT_NE(want.find(" FILE "), std::string::npos);
}

// A line that arrives while a search runs aborts it and is then carried out; asking again runs the whole
// search, not the remains of the cut one.
TEST_F(StpAgreeTest, ALineDuringASearchAbortsItAndTheNextQuerySearchesAgain) {
    for (const char *search : {"readme", "", "!abc size:<2000"}) {
        SCOPED_TRACE(search);
        std::string set = std::string("SABLEWATCH search ") + search;
        EXPECT_EQ(say({set, "SABLEWATCH count 4294967295", "SABLEWATCH query", "NOOP"}),
                  std::string("200 Search set to (") + search +
                      ").\r\n200 Count set to (4294967295).\r\n426 Query aborted.\r\n200 OK.\r\n");
        exec_case_t c = {search, 0, nullptr};
        EXPECT_EQ(difference(query(), expected(c, 0, 0, 0, UINT32_MAX)), "");
        // Nothing of the cut search follows later.
        EXPECT_EQ(say({"NOOP"}), "200 OK.\r\n");
    }
}

// A client that switched UTF-8 off reads the current folder in the ANSI code page, and names folders in
// it: it can walk into a folder with accents by the bytes that LIST gave it, where the page holds them.
TEST_F(StpAgreeTest, WithoutUtf8PathsTravelInTheAnsiCodePage) {
    // A folder with a letter beyond ASCII; one that the page holds (a round trip keeps it) if there is.
    auto convert = [](void (*to)(str_t *, const char *, size_t), const std::string &text) {
        str_t out;
        str_init(&out);
        to(&out, text.data(), text.size());
        std::string r(out.ptr, (size_t) out.len);
        str_kill(&out);
        return r;
    };
    auto ansi_of = [&](const std::string &text) { return convert(os_text_to_ansi, text); };
    auto utf8_of = [&](const std::string &text) { return convert(os_text_from_ansi, text); };
    std::string path;
    bool held = false;
    for (const ref_record_t &r : idx.recs) {
        if (!r.folder ||
            std::all_of(r.path.begin(), r.path.end(), [](char ch) { return (unsigned char) ch < 0x80; })) {
            continue;
        }
        held = utf8_of(ansi_of(r.path)) == r.path;
        if (path.empty() || held) {
            path = r.path;
        }
        if (held) {
            break;
        }
    }
    ASSERT_FALSE(path.empty());
    std::string shown = path;
    for (char &ch : shown) {
        ch = ch == OS_SEP ? '/' : ch;
    }
    if (shown[0] != '/') {
        shown = "/" + shown;
    }
    std::string in_ansi = ansi_of(shown);
    EXPECT_EQ(say({"CWD " + shown, "OPTS UTF8 OFF", "PWD"}),
              "250 CWD successful. \"" + shown +
                  "\" is current directory.\r\n200 UTF8 mode disabled.\r\n257 \"" + in_ansi +
                  "\" is current directory.\r\n");
    if (held) {
        EXPECT_EQ(say({"CWD /", "CWD " + in_ansi}),
                  "250 CWD successful. \"/\" is current directory.\r\n250 CWD successful. \"" + in_ansi +
                      "\" is current directory.\r\n");
    }
    // With UTF-8 on again the same folder is named in UTF-8.
    EXPECT_EQ(say({"OPTS UTF8 ON", "PWD"}),
              "200 UTF8 mode enabled.\r\n257 \"" + shown + "\" is current directory.\r\n");
}
} // namespace
