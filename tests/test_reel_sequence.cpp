// The sequence loader: rows and their argument text, labels, barriers, relative times in their
// resolution order, the music sync, and every refusal with its message.
#include <gtest/gtest.h>

#include <string>

#include "reel.h"
#include "test_fatal.h"

namespace {

struct seq_fixture {
    test_arena memory, tmp_memory;
    reel_sequence seq;
    const reel_sequence& load(const std::string& text)
    {
        reel_load_sequence(&seq, text.c_str(), "sequence.csv", &memory.arena, &tmp_memory.arena);
        return seq;
    }
};

const char* const HEADER = "start_mode,start_ref,start,preload,end_mode,end_ref,end,function,args\n";

// A row as "line start load end function(args)", "-" for no argument text.
std::string row_text(const reel_sequence_row& r)
{
    return std::to_string(r.line) + " " + std::to_string(r.start) + " " + std::to_string(r.load) + " " +
           std::to_string(r.end) + " " + r.function + "(" + (r.args ? r.args : "-") + ")";
}

}  // namespace

TEST(reel_sequence, rows_read_their_columns_and_resolve_against_the_previous_row)
{
    seq_fixture f;
    const reel_sequence& s = f.load(std::string(HEADER) + "abs,,0,0,abs,,5000,load_sync\nrelend,prev,0,500,relstart,me,2000,"
                                    "overlay_clear,3\nabs,\t,1,1,abs,,-1,video_clear  ,  #00ff00ff, 2 \n"
                                    "relend,me,-1000,1000,abs,,60000,overlay_clear\n");
    ASSERT_TRUE(s.row_count == 4u && s.lead_in == 0u && s.rows[2].index == 2u);
    EXPECT_EQ(std::string(s.rows[0].start_reference) + "," + s.rows[1].start_reference + "," + s.rows[1].end_reference,
              ",prev,me");
    EXPECT_EQ(row_text(s.rows[0]), "2 0 0 110250 load_sync(-)");
    EXPECT_EQ(row_text(s.rows[1]), "3 110250 99225 154350 overlay_clear(3)");
    // (ms x 22050) / 1000 truncates toward zero; the argument text is the rest of the line as it is
    EXPECT_EQ(row_text(s.rows[2]), "4 22 0 -22 video_clear(  #00ff00ff, 2 )");
    // a start after its own end resolves in the second pass
    EXPECT_EQ(row_text(s.rows[3]), "5 1300950 1278900 1323000 overlay_clear(-)");
}

// Comments, empty lines, labels and barriers keep line numbers, with Unix or Windows line ends.
TEST(reel_sequence, comments_labels_and_barriers_keep_line_numbers_in_either_line_end)
{
    const std::string body = "# the opening\n\nabs,,0,0,abs,,1000,load_sync,intro\nabs,,0,0,abs,,1000,b\n"
                             "barrier,prev_completed\nintro: anything, here: at all\n"
                             "relend,prev,0,0,relstart,me,1000,overlay_clear\n"
                             "relstart,intro,250,0,relend,intro,0,video_clear\noutro:\n";
    std::string crlf;
    for (char c : std::string(HEADER) + body)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    seq_fixture unix_text, windows_text;
    for (const reel_sequence* s : {&unix_text.load(HEADER + body), &windows_text.load(crlf)}) {
        ASSERT_EQ(s->row_count, 4u);
        EXPECT_EQ(row_text(s->rows[0]), "4 0 0 22050 load_sync(intro)");  // no carriage return left
        EXPECT_EQ(row_text(s->rows[3]), "9 27562 27562 44100 video_clear(-)");
        EXPECT_TRUE(s->rows[0].flags == 0 && s->rows[1].flags == SEQ_ROW_BARRIER_AFTER && s->rows[2].flags == 0);
        ASSERT_EQ(s->barrier_count, 1u);
        EXPECT_TRUE(s->barriers[0].kind == SEQ_BARRIER_PREV_COMPLETED && s->barriers[0].line == 6 &&
                    s->barriers[0].row == 1);
        ASSERT_EQ(s->label_count, 2u);
        EXPECT_STREQ(s->labels[0].name, "intro");
        EXPECT_TRUE(s->labels[0].line == 7 && s->labels[0].row == 2);
        EXPECT_EQ(s->labels[1].row, 4u);  // after the last row: load_sync uses it to mean "all rows"
        EXPECT_TRUE(seq_find_label(s, "intro") == &s->labels[0] && seq_find_label(s, "intr") == nullptr);
    }
}

TEST(reel_sequence, music_sync_delays_the_music_or_moves_the_script)
{
    const std::string rows = "abs,,0,0,abs,,1000,music_start,music\nabs,,2000,500,relstart,me,1000,music_sync,";
    seq_fixture f, g;
    const reel_sequence& s = f.load(HEADER + rows + "22050\n");
    EXPECT_TRUE(s.lead_in == 22050u && s.rows[1].start == 44100 && s.rows[0].end == 22050);
    const reel_sequence& t = g.load(HEADER + rows + "66150,ignored\n");
    EXPECT_EQ(std::to_string(t.lead_in) + " " + row_text(t.rows[0]), "0 2 22050 22050 44100 music_start(music)");
    EXPECT_EQ(row_text(t.rows[1]), "3 66150 55125 88200 music_sync(66150,ignored)");
}

TEST(reel_sequence_death, every_refusal_names_its_line)
{
    const struct { std::string body, message;
    } cases[] = {
        {"abs,,0,0,abs,,1000,a\nbarrier,prev_active\n",
         "barrier on line 3 in \"sequence.csv\" has unexpected/unsupported value: \"prev_active\"\n"},
        {"barrier,prev_completed\nabs,,0,0,abs,,1000,a\n",
         "barrier on line 2 in \"sequence.csv\" comes before the first scene row\n"},
        {"abs,,0,0,abs,,1000,music_start,music\nabs,,0,0,abs,,1,music_sync,1\nabs,,0,0,abs,,1,music_sync,2\n",
         "there can be at most one \"music_sync\" but there was one on line 3 and on line 4\n"},
        {"abs,,0,0,abs,,1,music_sync\n",
         "\"music_sync\" on line 2 in \"sequence.csv\" needs the music position in samples as its argument\n"},
        {"abs,,0,0,abs,,1,music_sync,soon\n", "parse_arg_int failed \"soon\" (sequence line 2, args: \"soon\")\n"},
        // a label naming the row itself is the row itself
        {"abs,,0,0,abs,,1000,a\nself:\nrelstart,self,0,0,abs,,1000,b\n",
         "cannot take start to be relative its own start! line: 4 in sequence.csv\n"},
        {"abs,,0,0,relend,me,1000,a\n", "cannot take end to be relative its own end! line: 2 in sequence.csv\n"},
        {"relend,me,0,0,relstart,me,1000,a\n",
         "could not resolve start/end on line: 2 in sequence.csv (bug? or are you doing something weird?)\n"},
        {"relend,nowhere,0,0,abs,,1000,a\n", "could not find label: \"nowhere\"\n"},
        {"abs,,0,0,abs,,1000,a\n:intro\n", "found ':' but has no name for the label? on line 3 in \"sequence.csv\"\n"},
        {"abs,,0 ,0,abs,,1000,a\n", "expected ',' failed parse line 2 in \"sequence.csv\"\n"},
        {"abs,,x,0,abs,,1000,a\n", "failed parse line 2 in \"sequence.csv\"\n"},
        {"abs,,97391549,0,abs,,0,a\n",
         "time 97391549 ms on line 2 in \"sequence.csv\" is out of range (at most 97391548 ms either way)\n"},
        {"abs,,0,0,abs,,1000,a", "sequence \"sequence.csv\" is empty or does not end with a line feed\n"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL(seq_fixture().load(HEADER + c.body), test_literal(c.message) + "$");
}
