#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

using kxtest::readFile;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {
std::string attribute(const XMLNode& node, const char* name) {
  const char* value = node.getAttribute(name);
  return value == nullptr ? "<absent>" : value;
}
}  // namespace

TEST(XmlNode, WritesAnIndentedDocument) {
  const TempDir dir;
  XMLNode top = XMLNode::createXMLTopNode("XCODESVR");
  top.addAttribute("VER", "1.0");
  XMLNode child = top.addChild("MEDIAFOLDER");
  child.addAttribute("PATH", "/share/a/");
  child.addAttribute("OPTION", "");
  ASSERT_EQ(top.writeToFile((dir / "f.xml").c_str()), 0);
  EXPECT_EQ(readFile(dir / "f.xml"),
            "<?xml version=\"1.0\"?>\n<XCODESVR VER=\"1.0\">\n"
            "  <MEDIAFOLDER PATH=\"/share/a/\" OPTION=\"\" />\n</XCODESVR>\n");
}

TEST(XmlNode, ReadsWhatItWrote) {
  const TempDir dir;
  const std::string hostile = "/a & <b> \"c\" 'd'\ne\tf\xc3\xbc";
  XMLNode top = XMLNode::createXMLTopNode("XCODESVR");
  top.addChild("MEDIAFOLDER").addAttribute("PATH", hostile.c_str());
  top.addChild("OTHER");
  top.addChild("MEDIAFOLDER").addAttribute("PATH", "second");
  ASSERT_EQ(top.writeToFile((dir / "f.xml").c_str()), 0);

  const XMLNode read = XMLNode::openFileHelper((dir / "f.xml").c_str(), "XCODESVR");
  ASSERT_FALSE(read.isEmpty());
  EXPECT_EQ(read.nChildNode("MEDIAFOLDER"), 2);
  EXPECT_EQ(attribute(read.getChildNode("MEDIAFOLDER", 0), "PATH"), hostile);
  EXPECT_EQ(attribute(read.getChildNode("MEDIAFOLDER", 1), "PATH"), "second");
  EXPECT_TRUE(read.getChildNode("MEDIAFOLDER", 2).isEmpty());
  EXPECT_TRUE(read.getChildNode("MEDIAFOLDER", -1).isEmpty());
  EXPECT_EQ(attribute(read.getChildNode("MEDIAFOLDER", 0), "OPTION"), "<absent>");
}

TEST(XmlNode, IsEmptyForMissingMalformedOrOtherDocuments) {
  const TempDir dir;
  const auto open = [&](const char* text) {
    writeFile(dir / "f.xml", text);
    return XMLNode::openFileHelper((dir / "f.xml").c_str(), "ROOT");
  };
  EXPECT_TRUE(XMLNode::openFileHelper((dir / "absent.xml").c_str(), "ROOT").isEmpty());
  EXPECT_TRUE(XMLNode::openFileHelper(dir.path().c_str(), "ROOT").isEmpty());
  EXPECT_TRUE(XMLNode::openFileHelper(nullptr, "ROOT").isEmpty());
  EXPECT_TRUE(open("").isEmpty());
  EXPECT_TRUE(open("<ROOT><A></ROOT>").isEmpty());
  EXPECT_TRUE(open("<OTHER/>").isEmpty());
  EXPECT_TRUE(open("text").isEmpty());
  EXPECT_FALSE(open("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- c --><ROOT/>").isEmpty());
}

TEST(XmlNode, DefinesNoEntitiesOfADocument) {
  const TempDir dir;
  writeFile(dir / "f.xml",
            "<!DOCTYPE ROOT [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><ROOT A=\"&x;\"/>");
  const XMLNode node = XMLNode::openFileHelper((dir / "f.xml").c_str(), "ROOT");
  EXPECT_EQ(attribute(node, "A"), "&x;");
}

TEST(XmlNode, AnEmptyNodeIgnoresEverything) {
  XMLNode node;
  node.addAttribute("A", "1");
  EXPECT_TRUE(node.addChild("B").isEmpty());
  EXPECT_EQ(node.getAttribute("A"), nullptr);
  EXPECT_EQ(node.nChildNode("B"), 0);
  EXPECT_NE(node.writeToFile("/tmp/never-written.xml"), 0);
}

TEST(XmlNode, AHandleKeepsItsDocumentAlive) {
  XMLNode child;
  {
    XMLNode top = XMLNode::createXMLTopNode("ROOT");
    child = top.addChild("C");
    child.addAttribute("A", "value");
  }
  EXPECT_EQ(attribute(child, "A"), "value");
}

TEST(XmlNode, ReplacesTheFileInOneStepWithMode0644) {
  const TempDir dir;
  writeFile(dir / "f.xml", "old");
  ASSERT_EQ(chmod((dir / "f.xml").c_str(), 0600), 0);
  EXPECT_EQ(XMLNode::createXMLTopNode("ROOT").writeToFile((dir / "f.xml").c_str()), 0);
  struct stat info = {};
  ASSERT_EQ(stat((dir / "f.xml").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0644U);
  EXPECT_NE(XMLNode::createXMLTopNode("ROOT").writeToFile((dir / "no/f.xml").c_str()), 0);
  const std::filesystem::directory_iterator entries(dir.path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}
