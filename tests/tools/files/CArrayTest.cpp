#include <gtest/gtest.h>

#include <sstream>

#include "tools/files/CArray.h"

namespace {

TEST(CArray, isCalledLikeItsFile) {
  for (const auto& [file, name] : std::initializer_list<std::pair<const char*, const char*>>{
           {"model.c", "model_image"},
           {"some/folder/a-b.net.c", "a_b_net_image"},
           {"8bit.c", "_8bit_image"},
           {"model", "model_image"},
           {"-", "model_image"},
           {"\xE8\xAA\x9E.c", "model_image"},
           {"\xE8\xAA\x9E"
            "1.c",
            "model___1_image"},
           {"...c", "model_image"},
           {"_A.c", "model_A_image"},
           {"_a.c", "_a_image"},
           {"int.c", "int_image"}}) {
    EXPECT_EQ(mlnn::arrayName(file), name) << file;
    EXPECT_TRUE(mlnn::isCName(mlnn::arrayName(file))) << file;
  }
}

TEST(CArray, hasANameThatBothLanguagesTake) {
  for (const char* name : {"a", "_a", "a_1", "Model", "integer", "a__b"}) {
    EXPECT_TRUE(mlnn::isCName(name)) << name;
  }
  for (const char* name : {"", "1a", "a-b", "a b", "\xE8\xAA\x9E", "int", "class", "main", "size_t",
                           "__a", "_B", "a\n"}) {
    EXPECT_FALSE(mlnn::isCName(name)) << name;
  }
}

TEST(CArray, holdsWordsOfTheImage) {
  std::vector<char> image(36);
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<char>(i * 8);
  std::ostringstream out;
  mlnn::writeCArray(image, "net", "a remark", out);
  EXPECT_EQ(out.str(),
            "/* The image of a model, written by mlnn: 36 bytes, for little-endian machines.\n"
            "   a remark.\n"
            "   In C++ the declarations below need extern \"C\". */\n"
            "#include <stddef.h>\n"
            "#include <stdint.h>\n\n"
            "#ifdef __cplusplus\nextern \"C\" {\n#endif\n\n"
            "extern const uint32_t net[];\n"
            "extern const size_t net_length;\n\n"
            "const size_t net_length = 36;\n"
            "const uint32_t net[9] = {\n"
            "    0x18100800, 0x38302820, 0x58504840, 0x78706860, 0x98908880, 0xb8b0a8a0, "
            "0xd8d0c8c0, 0xf8f0e8e0,\n"
            "    0x18100800,\n"
            "};\n\n"
            "#ifdef __cplusplus\n}\n#endif\n");
}

}  // namespace
