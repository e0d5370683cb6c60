// The line and table readers: line ends across buffer edges, the field rules, the byte order mark and the
// row protocol that every side file relies on.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "filelist/csv.h"
#include "mem/mem.h"
#include "os/os.h"

// A source that hands out its bytes a few at a time, so lines and CR LF pairs straddle reads.
struct chunked_source {
    std::string bytes;
    size_t pos = 0;
    size_t step;
    bool closed = false;
};

static int64_t chunked_read(void *h, void *buf, size_t n) {
    chunked_source *s = (chunked_source *) h;
    size_t k = std::min(std::min(n, s->step), s->bytes.size() - s->pos);
    memcpy(buf, s->bytes.data() + s->pos, k);
    s->pos += k;
    return (int64_t) k;
}

static void chunked_close(void *h) {
    ((chunked_source *) h)->closed = true;
}

static std::vector<std::string> lines_of(const std::string &bytes, size_t step, size_t buffer) {
    chunked_source src{bytes, 0, step};
    line_reader_t r;
    line_reader_init(&r, &src, chunked_read, chunked_close, buffer);
    std::vector<std::string> out;
    str_t line;
    str_init(&line);
    while (line_reader_next(&r, &line)) {
        out.emplace_back(line.ptr, (size_t) line.len);
    }
    // Once finished it stays finished.
    EXPECT_EQ(line_reader_next(&r, &line), 0);
    str_kill(&line);
    line_reader_kill(&r);
    EXPECT_TRUE(src.closed);
    return out;
}

TEST(LineReader, LineEndsInEveryBufferSplit) {
    using V = std::vector<std::string>;
    struct {
        const char *bytes;
        V lines;
    } cases[] = {
        {"", {}},
        {"a", {"a"}},
        {"a\n", {"a"}},
        {"a\r\nb\r\n", {"a", "b"}},
        {"a\nb", {"a", "b"}},
        {"\n\n", {"", ""}},
        {"a\rb\r\n", {"a\rb"}}, // a lone CR is data
        {"a\r", {"a\r"}},       // even at the very end
        {"a\r\r\n", {"a\r"}},   // only the CR next to the LF belongs to the end
        {"\r\n\r\nx", {"", "", "x"}},
    };
    // Every read size from one byte up, and buffers small enough that the CR and the LF land in
    // different fills.
    for (auto &c : cases) {
        for (size_t step = 1; step <= 5; step++) {
            for (size_t buffer : {1, 2, 3, 64}) {
                EXPECT_EQ(lines_of(c.bytes, step, buffer), c.lines)
                    << "bytes '" << c.bytes << "' step " << step << " buffer " << buffer;
            }
        }
    }
}

TEST(LineReader, LongLineSpansManyBuffers) {
    std::string big(200000, 'x');
    big[123456] = '\r';
    std::string text = big + "\r\nend";
    auto lines = lines_of(text, 70000, 4096);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], big);
    EXPECT_EQ(lines[1], "end");
}

// Every row of a table as its fields.
static std::vector<std::vector<std::string>> rows_of(const std::string &bytes) {
    csv_t *csv = csv_open_memory(bytes.data(), bytes.size());
    std::vector<std::vector<std::string>> rows;
    for (;;) {
        std::vector<std::string> row;
        const char *f;
        int len;
        while ((f = csv_read_field(csv, &len))) {
            EXPECT_EQ((size_t) len, strlen(f)) << "the returned length must match the terminated text";
            row.emplace_back(f, (size_t) len);
        }
        if (!csv_next_row(csv)) {
            // The end of the file is no row at all.
            EXPECT_TRUE(row.empty());
            break;
        }
        rows.push_back(row);
    }
    csv_close(csv);
    return rows;
}

TEST(Csv, FieldRules) {
    using R = std::vector<std::vector<std::string>>;
    struct {
        const char *bytes;
        R rows;
    } cases[] = {
        {"a,b,c\r\n", {{"a", "b", "c"}}},
        {"a,b,\n", {{"a", "b"}}}, // a closing comma opens no field
        {"a,,\n", {{"a", ""}}},   // but one in the middle does
        {",a\n", {{"", "a"}}},
        {",\n", {{""}}},
        {"\n", {{}}}, // an empty line is a row with no fields
        {"\"a,b\",c\n", {{"a,b", "c"}}},
        {"\"say \"\"hi\"\"\",x\n", {{"say \"hi\"", "x"}}},
        {"\"\"\"\"\n", {{"\""}}},
        {"\"\",x\n", {{"", "x"}}},
        {"\"ab\"cd,e\n", {{"abcd", "e"}}}, // text after the closing quote is appended as it stands
        {"\"ab\"c\"d\",e\n", {{"abc\"d\"", "e"}}},
        {"a\"b,c\n", {{"a\"b", "c"}}},                        // quotes inside an unquoted field are kept
        {"\"open,field\nnext\n", {{"open,field"}, {"next"}}}, // fields never span lines
        {"x\r\n\r\ny", {{"x"}, {}, {"y"}}},
        {"a\rb,c\n", {{"a\rb", "c"}}},
    };
    for (auto &c : cases) {
        EXPECT_EQ(rows_of(c.bytes), c.rows) << c.bytes;
    }
}

TEST(Csv, ByteOrderMarkOnlyAtTheStart) {
    using R = std::vector<std::vector<std::string>>;
    EXPECT_EQ(rows_of("\xEF\xBB\xBF"
                      "Filename,Size\n"
                      "\xEF\xBB\xBF"
                      "x,1\n"),
              (R{{"Filename", "Size"}, {"\xEF\xBB\xBFx", "1"}}));
    // A partial mark is data, and a mark alone is an empty first row.
    EXPECT_EQ(rows_of("\xEF\xBBz\n"), (R{{"\xEF\xBBz"}}));
    EXPECT_EQ(rows_of("\xEF\xBB\xBF\nx\n"), (R{{}, {"x"}}));
}

TEST(Csv, HalfReadRowIsDrainedAndFieldsStayValid) {
    std::string text = "a,\"b\"\"q\",c,d\ne,f\n";
    csv_t *csv = csv_open_memory(text.data(), text.size());
    const char *a = csv_read_field(csv);
    const char *b = csv_read_field(csv);
    ASSERT_TRUE(a && b);
    // Earlier fields of a row survive the parsing of later ones.
    EXPECT_STREQ(a, "a");
    EXPECT_STREQ(b, "b\"q");
    EXPECT_EQ(csv_next_row(csv), 1);
    EXPECT_STREQ(csv_read_field(csv), "e");
    EXPECT_EQ(csv_next_row(csv), 1);
    EXPECT_EQ(csv_read_field(csv), nullptr);
    EXPECT_EQ(csv_next_row(csv), 0);
    EXPECT_EQ(csv_next_row(csv), 0);
    csv_close(csv);
}

TEST(Csv, OpensFilesAndRefusesMissingOnes) {
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string path =
        std::string(tmp.ptr) + OS_SEP_STR + "sw-csv-test-" + std::to_string(os_counter()) + ".csv";
    str_kill(&tmp);
    EXPECT_EQ(csv_open(path.c_str()), nullptr);
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID);
    // More than one 64 KiB buffer of rows, so the file source refills.
    std::string text;
    for (int i = 0; i < 20000; i++) {
        text += std::to_string(i) + ",\"n" + std::to_string(i) + "\"\r\n";
    }
    ASSERT_EQ(os_file_write(f, text.data(), text.size()), (int64_t) text.size());
    os_file_close(f);
    csv_t *csv = csv_open(path.c_str());
    ASSERT_NE(csv, nullptr);
    int rows = 0;
    do {
        const char *num = csv_read_field(csv);
        const char *name = csv_read_field(csv);
        if (!num) {
            break;
        }
        ASSERT_TRUE(name);
        EXPECT_EQ(name[0], 'n');
        EXPECT_STREQ(name + 1, num);
        EXPECT_EQ(std::stoi(num), rows);
        rows++;
    } while (csv_next_row(csv));
    EXPECT_EQ(rows, 20000);
    csv_close(csv);
    os_file_delete(path.c_str());
}
