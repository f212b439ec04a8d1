#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>

#include "kelvo/gml_writer.h"

using namespace kelvo;

namespace {

// A small graph over ints: edges from a map, parents from another, labels from the number.
class IntGraph final : public GmlGraphInterface<int> {
public:
  std::multimap<int, int> edges;
  std::map<int, int> parents;
  Result<void> GetTargets(const int& node, const TargetReceiver& receiver) const override {
    auto [lo, hi] = edges.equal_range(node);
    for (auto it = lo; it != hi; ++it) {
      KELVO_ASSIGN_OR_RETURN(bool more, receiver(it->second, GmlEdgeTarget{}));
      if (!more) break;
    }
    return {};
  }
  std::optional<int> GetParent(const int& node) const override {
    auto it = parents.find(node);
    return it == parents.end() ? std::nullopt : std::optional<int>(it->second);
  }
  GmlNodeAttribs GetNodeAttribs(const int& node) const override {
    GmlNodeAttribs a;
    a.text = "N" + std::to_string(node) + (node == 2 ? " \"quoted\" & more\r\nline" : "");
    if (node != 3) a.color = node == 1 ? 0xff7f7fu : 0xeeeeeeu;
    return a;
  }
};

std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (auto pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
  return n;
}

class StringStream final : public OutputStream {
public:
  std::string text;
  Result<void> Write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
    return {};
  }
  Result<void> Close() override { return {}; }
};

} // namespace

TEST(GmlWriter, NodesEdgesAndAttributes) {
  IntGraph graph;
  graph.edges = {{1, 2}, {2, 3}, {1, 3}};
  GmlWriter<int> writer;
  writer.Add(1);
  writer.Add(2);
  writer.Add(1); // once only
  EXPECT_EQ(writer.GetCount(), 2u);
  StringStream out;
  ASSERT_TRUE(writer.Write(out, graph).HasValue());
  const std::string& text = out.text;

  EXPECT_EQ(text.rfind("graph [\n  directed 1\n", 0), 0u);
  EXPECT_EQ(text.back(), '\n');
  // Node 3 was not added but is a target, so it is written too.
  EXPECT_EQ(Count(text, "  node [\n"), 3u);
  EXPECT_EQ(Count(text, "  edge [\n"), 3u);
  EXPECT_NE(text.find("label \"N1\""), std::string::npos);
  EXPECT_NE(text.find("label \"N3\""), std::string::npos);
  EXPECT_NE(text.find("fill \"#FF7F7F\""), std::string::npos);
  EXPECT_NE(text.find("fill \"#EEEEEE\""), std::string::npos);
  EXPECT_EQ(Count(text, "fill "), 2u); // node 3 has no colour
  // Quotes and ampersands become entities; line breaks stay inside the label.
  EXPECT_NE(text.find("label \"N2 &quot;quoted&quot; &amp; more\r\nline\""), std::string::npos);
  EXPECT_NE(text.find("    source 0\n    target 1\n    label \"standard\"\n"), std::string::npos);
  EXPECT_NE(text.find("    source 1\n    target 2\n"), std::string::npos);
  EXPECT_NE(text.find("    source 0\n    target 2\n"), std::string::npos);
  // Balanced brackets.
  EXPECT_EQ(Count(text, "["), Count(text, "]"));
}

TEST(GmlWriter, GroupsAndParentCycles) {
  IntGraph graph;
  graph.parents = {{5, 9}};
  GmlWriter<int> writer;
  writer.Add(5);
  auto document = writer.Build(graph);
  ASSERT_TRUE(document.HasValue());
  const std::string text = document->ToText();
  // The parent is written first as a group, the child refers to it.
  EXPECT_NE(text.find("    id 0\n    label \"N9\"\n    isGroup 1\n"), std::string::npos);
  EXPECT_NE(text.find("    id 1\n    label \"N5\"\n    gid 0\n"), std::string::npos);

  graph.parents = {{5, 6}, {6, 5}};
  auto cyclic = writer.Build(graph);
  ASSERT_TRUE(cyclic.HasError());
  EXPECT_TRUE(cyclic.GetError().Is(errors::illegalstate));
}

TEST(GmlWriter, ReceiverErrorStopsTheWrite) {
  class Failing final : public GmlGraphInterface<int> {
  public:
    Result<void> GetTargets(const int&, const TargetReceiver&) const override { return IoError("no targets"); }
    std::optional<int> GetParent(const int&) const override { return std::nullopt; }
    GmlNodeAttribs GetNodeAttribs(const int&) const override { return {}; }
  } failing;
  GmlWriter<int> writer;
  writer.Add(1);
  StringStream out;
  auto r = writer.Write(out, failing);
  ASSERT_TRUE(r.HasError());
  EXPECT_EQ(r.GetError().GetMessage(), "no targets");
  EXPECT_TRUE(out.text.empty());
}
