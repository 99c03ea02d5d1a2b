local function longest(limit)
  local steps, most, start = {0}, 0, 1
  for i = 2, limit do
    local x, count = i, 0
    while x >= i do
      if x % 2 ~= 0 then x = 3 * x + 1 else x = x // 2 end
      count = count + 1
    end
    steps[i] = count + steps[x]
    if steps[i] > most then most, start = steps[i], i end
  end
  return start .. " " .. most
end

local n = math.tointeger(arg[1])
for k = 1, 10 do print(longest(n // 10 * k)) end
