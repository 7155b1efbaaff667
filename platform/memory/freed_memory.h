#pragma once

namespace tarn {

// Gives the pages of freed heap memory back to the operating system. The scanner keeps freed
// memory for reuse (see main.cpp); after the largest report has been read and dropped, its
// pages are worth returning: later phases allocate in other sizes, do not reuse them, and
// the process's peak memory would count both.
void ReturnFreedMemory();

}  // namespace tarn
