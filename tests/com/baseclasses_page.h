// Resource identifiers of the property page that the tests show.
#pragma once

#define TEST_PAGE_DIALOG 101
#define TEST_PAGE_TITLE 102
#define TEST_PAGE_FIRST 1001
#define TEST_PAGE_SECOND 1002
