// Streams, paths, folders and the deletion of record files.
#include "FileManager.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;
using platform::SeekFrom;

namespace {

void touch(const std::string &path, const std::string &content = "x") {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << content;
}

}  // namespace

// Every mix of reads, writes and seeks through a small buffer gives what it gives without one.
TEST(Stream, BufferedGivesWhatUnbufferedGives) {
    const TempDir dir;
    platform::File plain;
    platform::File buffered;
    ASSERT_TRUE(plain.Open((dir / "plain").c_str(), platform::OpenMode::create_update));
    ASSERT_TRUE(buffered.Open((dir / "buffered").c_str(), platform::OpenMode::create_update, 64));
    uint32_t seed = 12345;
    const auto random = [&seed](uint32_t bound) { return (seed = seed * 1664525 + 1013904223) / 65536 % bound; };
    for (int step = 0; step < 5000; ++step) {
        const std::string data(random(100), static_cast<char>('a' + random(26)));
        const auto offset = static_cast<int64_t>(random(2000));
        switch (random(4)) {
            case 0: EXPECT_EQ(plain.Write(data.data(), data.size()), buffered.Write(data.data(), data.size())); break;
            case 1: {
                std::string a(data.size(), 0);
                std::string b(data.size(), 0);
                EXPECT_EQ(plain.Read(a.data(), a.size()), buffered.Read(b.data(), b.size()));
                EXPECT_EQ(a, b);
                break;
            }
            case 2: EXPECT_EQ(plain.Seek(offset, SeekFrom::begin), buffered.Seek(offset, SeekFrom::begin)); break;
            default: EXPECT_EQ(plain.Seek(0, SeekFrom::current), buffered.Seek(0, SeekFrom::current)); break;
        }
        ASSERT_EQ(plain.Tell(), buffered.Tell()) << step;
    }
    EXPECT_TRUE(buffered.Close());
    EXPECT_EQ(read_file(dir / "plain"), read_file(dir / "buffered"));
}

TEST(Stream, KeepsWhatAFailedFlushLeftBehind) {
    const TempDir dir;
    platform::File file;
    ASSERT_TRUE(file.Open((dir / "file").c_str(), platform::OpenMode::create, 64));
    file.Write("abcdef", 6);
    doubles::inject({.call = doubles::Call::write, .path_end = "file", .times = 2, .written_before = 2});
    EXPECT_FALSE(file.Flush());
    EXPECT_TRUE(file.Close());
    doubles::clear_faults();
    EXPECT_EQ(read_file(dir / "file"), "abcdef");
}

TEST(Paths, OfAPartitionAreNormalisedEvenWhereTheyAreRefused) {
    struct Case {
        const char *given, *becomes;
        bool valid;
    };
    for (const Case &c : {Case{"/srv/video/", "/srv/video", true}, Case{"/", "/", true}, Case{"d:\\rec\\", "D:/rec", true},
                          Case{"D:", "D:", true}, Case{"/srv//", "/srv/", true}, Case{"1:/rec", "1:/rec", false},
                          Case{"d\\rec", "D/rec", false}, Case{"srv/video", "Srv/video", false}, Case{"", "", false}}) {
        char path[32] = {};
        std::strcpy(path, c.given);
        EXPECT_EQ(CFileManager::file_path_valid(path), c.valid) << c.given;
        EXPECT_STREQ(path, c.becomes);
    }
    EXPECT_FALSE(CFileManager::file_path_valid(nullptr));
}

TEST(Folders, AreMadeDownToTheLast) {
    const TempDir dir;
    EXPECT_EQ(CFileManager::create_file_dir((dir / "a/b/").c_str()), 0);
    EXPECT_EQ(CFileManager::create_file_dir((dir / "a/b/c").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir / "a/b/c"));
    EXPECT_EQ(CFileManager::create_file_dir("x"), KELM_AVIFILE_BAD_ARGUMENT);
    EXPECT_EQ(CFileManager::create_file_dir("abc"), KELM_AVIFILE_BAD_ARGUMENT);
    EXPECT_EQ(CFileManager::create_file_dir(("/" + std::string(255, 'x')).c_str()), KELM_AVIFILE_BAD_ARGUMENT);
    touch(dir / "file");
    EXPECT_EQ(CFileManager::create_file_dir((dir / "file/below").c_str()), KELM_AVIFILE_FAILED);
    // The folder that stands for a drive is never made.
    const fs::path before = fs::current_path();
    fs::current_path(dir.path());
    EXPECT_EQ(CFileManager::create_file_dir("Q:/a"), KELM_AVIFILE_FAILED);
    fs::create_directory("Q:");
    EXPECT_EQ(CFileManager::create_file_dir("Q:/a/b"), 0);
    fs::current_path(before);
}

TEST(Deletion, PrunesTheTreeAsFarAsNoRecordingIsLeft) {
    const TempDir dir;
    const std::string day = dir / "avi_av/20261124";
    touch(day + "/cam/channel01/100000.avi");
    touch(day + "/cam/channel01/rec_index.bin");
    touch(day + "/cam/channel02/110000.avi");
    EXPECT_EQ(CFileManager::delete_avi_file((day + "/cam/channel01/100000.avi").c_str()), 0);
    EXPECT_FALSE(fs::exists(day + "/cam/channel01"));
    EXPECT_TRUE(fs::exists(day + "/cam/channel02/110000.avi"));
    EXPECT_EQ(CFileManager::delete_avi_file((day + "/cam/channel02/110000.avi").c_str()), 0);
    EXPECT_FALSE(fs::exists(dir / "avi_av"));
    EXPECT_TRUE(fs::exists(dir.path()));
    EXPECT_EQ(CFileManager::delete_avi_file((dir / "avi_av/none.avi").c_str()), 0);
}

TEST(Deletion, NeverLeavesTheRecordTree) {
    const TempDir dir;
    // A partition inside a folder that is named like a record tree: the application's own file stays.
    const std::string root = dir / "avi_av/store";
    touch(root + "/notes.txt");
    touch(root + "/avi_av/20261124/cam/channel01/100000.avi");
    EXPECT_EQ(CFileManager::delete_avi_file((root + "/avi_av/20261124/cam/channel01/100000.avi").c_str()), 0);
    EXPECT_FALSE(fs::exists(root + "/avi_av"));
    EXPECT_TRUE(fs::exists(root + "/notes.txt"));
}

TEST(Deletion, SparesRecordingsThatTurnUpMeanwhile) {
    const TempDir dir;
    touch(dir / "channel01/120000.avi");
    touch(dir / "channel01/120000.avi_idx");
    touch(dir / "channel01/110000.avi_idx");
    touch(dir / "channel01/rec_index.bin");
    CFileManager::prune_dir((dir / "channel01").c_str());
    EXPECT_EQ(find_files(dir.path(), "").size(), 2U);
    EXPECT_TRUE(fs::exists(dir / "channel01/120000.avi_idx"));
}

TEST(Deletion, DoesNotFollowLinks) {
    const TempDir dir;
    touch(dir / "outside/keep.txt");
    fs::create_directories(dir / "tree");
    fs::create_directory_symlink(dir / "outside", dir / "tree/link");
    CFileManager::delete_dir_tree((dir / "tree").c_str());
    EXPECT_FALSE(fs::exists(dir / "tree"));
    EXPECT_TRUE(fs::exists(dir / "outside/keep.txt"));
}
