local function cell(text)
  return "<td>" .. text .. "</td>"
end
local function amount(number)
  return "<td class='amount'>" .. string.format("%.2f", number) .. "</td>"
end
local function row(name, count, price)
  return "<tr>" .. cell(name) .. cell(count) .. amount(price) .. amount(count * price) .. "</tr>\n"
end

local teas = {"Assam", "Darjeeling", "Sencha", "Rooibos", "Keemun"}
local rows, total
for table = 1, math.tointeger(arg[1]) do
  rows, total = {}, 0
  for i = 1, 200 do
    local price = 2 + (i + table) % 97 / 7
    rows[i] = row(teas[i % 5 + 1], i, price)
    total = total + i * price
  end
end
print(table.concat(rows))
print(string.format("%.2f", total))
