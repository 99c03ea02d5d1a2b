# Prints the records of a table as python3-dbf finds them.
import sys

import dbf

table = dbf.Table(sys.argv[1])
table.open(dbf.READ_ONLY)
for record in table:
    name, amount, day, paid, note = record
    print("|".join([
        "*" if dbf.is_deleted(record) else "",
        name.rstrip(),
        "" if amount is None else "%.2f" % amount,
        day.strftime("%Y%m%d") if day else "",
        {True: "T", False: "F"}.get(paid, ""),
        str(len(note)),
        note.replace("\n", "/")[:12],
    ]))
table.close()
