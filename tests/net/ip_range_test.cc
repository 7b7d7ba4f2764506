#include <kel/iprange.h>

#include "support/test.h"

namespace {

using namespace kel::testing;

TEST(RangeList, IsFreedWhenAnyAllocationFails) {
  ReportCapture reports;
  std::vector<std::string> texts;
  EXPECT_EQ(fail_each_malloc([&] {
              iprange_list_t* list = iprange_list_create("10.1.2.3/16 , 1.2.3.4");
              EXPECT_EQ(list == nullptr, errno == ENOMEM);
              iprange_list_destroy(list);
              errno = 0;
              for (std::string& text : reports.take_texts()) texts.push_back(std::move(text));
            }),
            5);
  EXPECT_THAT(
      texts, ElementsAre(StartsWith("Could not allocate"), StartsWith("Could not allocate"),
                         "iprange_list_create: get ip range address failed 10.1.2.3/16",
                         "kelListAdd: could not allocate memory",
                         "iprange_list_create: Add the node into IP range list failed 10.1.2.3/16",
                         StartsWith("Could not allocate"),
                         "iprange_list_create: get ip range address failed 1.2.3.4/32",
                         "kelListAdd: could not allocate memory",
                         "iprange_list_create: Add the node into IP range list failed 1.2.3.4/32"));
}

}  // namespace
