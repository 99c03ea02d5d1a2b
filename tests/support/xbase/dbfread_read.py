# Prints the records of a table as python3-dbfread finds them, deleted ones last.
import sys

import dbfread


def line(record, deleted):
    day = record["DAY"].strftime("%Y%m%d") if record["DAY"] else ""
    paid = {True: "T", False: "F", None: ""}[record["PAID"]]
    amount = "" if record["AMOUNT"] is None else "%.2f" % record["AMOUNT"]
    note = (record["NOTE"] or "").replace("\n", "/")
    return "|".join(["*" if deleted else "", record["NAME"], amount, day, paid, str(len(note)), note[:12]])


table = dbfread.DBF(sys.argv[1], load=True, encoding="latin-1")
for record in table:
    print(line(record, False))
for record in table.deleted:
    print(line(record, True))
