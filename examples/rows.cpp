#include <orva/orva.h>

#include <iostream>
#include <numeric>
#include <vector>

int main() {
    std::vector<double> rows(1'000'000);  // one double is a row here
    std::iota(rows.begin(), rows.end(), 1.0);
    ORVA_FileStream dictionary("rows.dat", "wb");
    if (dictionary.Good() == 0) return 1;
    dictionary.Write("doubles\n", 8);  // the program's own part; the rows begin behind it, at 8

    zcmpsFilestr writer(dictionary);
    writer.setMultiThread(1);  // compresses beside this thread
    writer.setRow0Pos(8);
    writer.Seek(8, ORVA_StrBaseIO::SeekFromStart);
    writer.Write(rows.data(), 8'000'000);
    writer.Close();

    zcmpsFilestr reader(ORVA_FileStream("rows.dat", "rb"));
    reader.readFilePosInfo(8, false);
    reader.Seek(8 + 700'000 * 8, ORVA_StrBaseIO::SeekFromStart);
    double row = 0;
    reader.Read(&row, 8);
    std::cout << "row 700000 is " << row << '\n';
}
