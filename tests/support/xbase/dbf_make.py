# Makes a table with python3-dbf.
import datetime
import sys

import dbf

table = dbf.Table(sys.argv[1], "NAME C(10); AMOUNT N(8,2); DAY D; PAID L; NOTE M", dbf_type="db3")
table.open(dbf.READ_WRITE)
table.append(("Ann", 12.5, datetime.date(2024, 1, 31), True, "first memo\nline two"))
table.append(("Bob", -3, datetime.date(2023, 12, 31), False, "x" * 600))
table.append(("Cid", None, None, None, ""))
table.append(("Eve", 1, None, True, "z" * 511))
dbf.delete(table[1])
table.close()
