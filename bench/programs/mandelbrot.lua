local n = math.tointeger(arg[1])
for row = 1, n do
  for column = 1, 2 * n do
    local a, b, x, y, turns = 1.5 * column / n - 2.2, 2.4 * row / n - 1.2, 0.0, 0.0, 0
    while turns < 50 and x * x + y * y < 4 do
      x, y = x * x - y * y + a, 2 * x * y + b
      turns = turns + 1
    end
    if turns == 50 then io.write("#")
    elseif turns > 9 then io.write("+")
    else io.write(".") end
  end
  io.write("\n")
end
