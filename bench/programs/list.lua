local teas = {"Assam", "Darjeeling", "Sencha", "Rooibos", "Keemun"}
local total = 0
io.write("<table>\n")
for i = 1, math.tointeger(arg[1]) do
  local price = 2 + i % 97 / 7
  total = total + price
  io.write('<tr class="', i % 2 == 1 and "odd" or "even", '">\n')
  io.write("  <td>", i, "</td>\n")
  io.write("  <td>", teas[i % 5 + 1], "</td>\n")
  io.write("  <td>", string.format("%.2f", price), "</td>\n")
  io.write("  <td>", string.format("%.2f", total), "</td>\n</tr>\n")
end
io.write("</table>\n")
