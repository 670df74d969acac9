#pragma once

#define OX_API __attribute__((visibility("default")))
